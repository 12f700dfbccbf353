// The system calls of all benchmark programs. Any failure here ends the program, because half a benchmark measures nothing.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>

namespace bench {

// Nanoseconds on the monotonic clock.
int64_t NowNs();

// Prints the failed operation and the cause, and exits with 1.
[[noreturn]] void Fail(const char* aWhat);

// Reads the port from a program's only argument. Prints the usage and exits if there is none.
uint16_t PortArgument(int aArgc, char** aArgv);

// Raises the limit of descriptors to the hard limit.
void RaiseDescriptorLimit();

// Binds the calling thread to one of the process's cores, 0 being the first, so that runs differ less. Does nothing if there is
// no such core.
void PinThisThread(int aCore);

// The processor time of a process (0: this one) on all cores so far in nanoseconds, and its resident memory in KiB.
int64_t CpuNs(pid_t aProcess);
double ResidentKib(pid_t aProcess);

// Benchmarks connect in bursts: the longest backlog that the system grants by default.
constexpr int BACKLOG = 4096;

sockaddr_in LoopbackAddress(uint16_t aPort);
// A listening, non-blocking socket on 127.0.0.1; port 0: any.
int ListenLoopback(uint16_t aPort);
void SetNoDelay(int aFd);

// Tells the driver, which waits for this line, that clients may connect.
void PrintReady();

}  // namespace bench
