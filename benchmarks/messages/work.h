// The work of the message benchmark: two processes, messages of one size between their application threads over TCP or, if PORT
// is a path with a slash, over a Unix socket.
//
//   PROGRAM send PORT SIZE [--type NAME]         listens, prints "ready"; sends messages without end to the first client
//   PROGRAM recv --port PORT --size SIZE ...     connects and receives all messages
//   PROGRAM pong PORT SIZE [--type NAME]         listens, prints "ready"; answers each message with a new one
//   PROGRAM ping --port PORT --size SIZE ...     connects; one message at a time, there and back
//
// recv and ping end by themselves, after --seconds (default 1) or --count messages, whichever comes first, after --warm-up
// seconds (default 0.2) that are not counted. They print JSON: "rate" (messages or round trips a second, from the first counted
// one to the last), "messages", "p50_us" and "p99_us" (ping). With --pid, the other process, also "cpu_ns": the cost of one
// message to both processes together. The listening side runs until its peer closes or a signal ends it.
//
// A message has its number in the first 8 bytes and a letter that depends on its size in all others. It is created in fresh
// memory for every send. The receiver checks number, size and last byte. A wrong message ends the program.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "benchmarks/support/histogram.h"

namespace bench {

enum class ERole { SEND, RECV, PONG, PING };

struct CMessageWork {
    bool IsListener() const { return m_Role == ERole::SEND || m_Role == ERole::PONG; }
    std::string GetUrl() const {
        return m_strPath.empty() ? "tcp://127.0.0.1:" + std::to_string(m_wPort) : "ipc://" + m_strPath;
    }

    ERole m_Role = ERole::SEND;
    uint16_t m_wPort = 0;
    std::string m_strPath;  // of a Unix socket; "": TCP over loopback
    size_t m_nSize = 64;
    uint64_t m_ullCount = UINT64_MAX;
    double m_dSeconds = 1;
    double m_dWarmUp = 0.2;
    pid_t m_Peer = 0;
    std::string m_strType;  // for programs with several kinds of connections
};

// Exits with the usage if the arguments are wrong.
CMessageWork ParseMessageWork(int aArgc, char** aArgv);

void FillMessage(void* aMessage, size_t aSize, uint64_t aNumber);

// The checked parts of a received message.
struct CArrived {
    CArrived() = default;
    CArrived(const void* aMessage, size_t aSize);

    size_t m_nSize = 0;
    uint64_t m_ullNumber = 0;
    char m_cLast = 0;
};

// Returns the number. Exits if the size or the last byte is wrong.
uint64_t CheckMessage(const CArrived& aMessage, size_t aExpectedSize);

// Counts from the end of the warm-up to the end of the work.
class CMeasurement {
public:
    explicit CMeasurement(const CMessageWork& aWork) : m_Work(aWork) {}

    // Counts another message. False: it was the last.
    bool Count(int64_t aNow);
    bool IsWarm() const { return m_llFrom != 0; }

    // aLatencies: null if there are none.
    void Print(const CHistogram* aLatencies) const;

protected:
    // Counts the message. Exits if it is wrong or out of order.
    void TakeNext(const CArrived& aMessage);

    const CMessageWork& m_Work;
    uint64_t m_ullDone = 0;  // all of them

private:
    int64_t CpuNs() const;

    int64_t m_llStart = 0;
    int64_t m_llFrom = 0;  // 0: warming up
    int64_t m_llTo = 0;
    int64_t m_llCpu = 0;
    uint64_t m_ullCounted = 0;
};

// The receiving end of a stream.
class CStreamReceiver : public CMeasurement {
public:
    using CMeasurement::CMeasurement;

    // False: it was the last.
    bool Take(const CArrived& aMessage);
    void Print() const { CMeasurement::Print(nullptr); }
};

// The asking end of a ping-pong.
class CPinger : public CMeasurement {
public:
    using CMeasurement::CMeasurement;

    // The number of the next message.
    uint64_t Next();
    // False: it was the last.
    bool Take(const CArrived& aMessage);
    void Print() const { CMeasurement::Print(&m_Latencies); }

private:
    int64_t m_llSent = 0;
    CHistogram m_Latencies;
};

// The program, for a library with blocking calls. End is one end of the connection, constructed from the work. A listening End
// has printed "ready"; it takes its peer in the constructor or later:
//   void Send(uint64_t aNumber)      creates a message and sends it
//   CArrived Receive()               waits for a message and reads its checked parts
template <class End>
int RunMessageWork(int aArgc, char** aArgv) {
    const CMessageWork work = ParseMessageWork(aArgc, aArgv);
    End end(work);
    CStreamReceiver receiver(work);
    CPinger pinger(work);
    switch (work.m_Role) {
    case ERole::SEND:
        for (uint64_t ullNumber = 0;; ++ullNumber)
            end.Send(ullNumber);
    case ERole::RECV:
        while (receiver.Take(end.Receive())) {
        }
        receiver.Print();
        break;
    case ERole::PONG:
        for (;;)
            end.Send(CheckMessage(end.Receive(), work.m_nSize));
    case ERole::PING:
        do {
            end.Send(pinger.Next());
        } while (pinger.Take(end.Receive()));
        pinger.Print();
        break;
    }
    std::_Exit(0);  // data in flight does not matter any more
}

}  // namespace bench
