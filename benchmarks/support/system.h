// The system calls that every benchmark program needs. Whatever fails here ends the program: half a benchmark measures nothing.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>

namespace bench {

// Nanoseconds on the monotonic clock.
int64_t NowNs();

// Prints what failed and why, and exits with 1.
[[noreturn]] void Fail(const char* aWhat);

// The port in a program's only argument; prints the usage and exits if there is none.
uint16_t PortArgument(int aArgc, char** aArgv);

// Allows as many descriptors as the hard limit does.
void RaiseDescriptorLimit();

// Binds the calling thread to one of the cores that the process may use, 0 being the first, so that runs differ less; does
// nothing where there is no such core.
void PinThisThread(int aCore);

// What a process, 0 being the own one, has used on all cores so far, in nanoseconds, and what of it lies in memory, in KiB.
int64_t CpuNs(pid_t aProcess);
double ResidentKib(pid_t aProcess);

// Connects of benchmarks come in bursts: the longest backlog that the system grants by default.
constexpr int BACKLOG = 4096;

sockaddr_in LoopbackAddress(uint16_t aPort);
// A listening, non-blocking socket on 127.0.0.1; port 0: any.
int ListenLoopback(uint16_t aPort);
void SetNoDelay(int aFd);

// Tells the driver, which waits for the line, that clients may connect.
void PrintReady();

}  // namespace bench
