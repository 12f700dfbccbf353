// The work of the forward benchmark: a producer forwards messages of one size to many receivers, which live in another process.
//
//   PROGRAM PORT RECEIVERS SIZE COUNT [--rate N]                 listens, prints "ready"; forwards COUNT messages, N a second
//   or
//                                                                as fast as possible, as soon as all receivers are there
//   PROGRAM recv PORT RECEIVERS SIZE COUNT [--stopped N] [--skip N] [--pid PRODUCER]   connects; N of the receivers never read
//
// The receivers end with the last message, or half a second after the last delivery: a library may drop messages, and only
// delivered ones count. They print JSON: "rate" (deliveries to all reading receivers a second), "delivered", "p50_us" and
// "p99_us" (from the forwarding of a message to its last delivery, if every reading receiver has got it), and with --pid
// "cpu_end_ns", the producer's processor time. The times of the first N messages of --skip do not count: the sockets of a
// receiver that never reads take 4 MB before it is refused. The producer ends when all receivers have left, and prints
// "cpu_start_ns", its processor time before the first message, "forward_ns", the processor time of one forward in its thread,
// and "peak_kib", its largest resident memory.
//
// A message has its number and the time of its forwarding in its first 16 bytes. The receivers check size, order and last byte.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "benchmarks/support/histogram.h"

namespace bench {

struct CForwardWork {
    bool m_bReceives = false;
    uint16_t m_wPort = 0;
    size_t m_nReceivers = 0;
    size_t m_nSize = 0;
    uint64_t m_ullCount = 0;
    uint64_t m_ullRate = 0;  // 0: as fast as possible
    size_t m_nStopped = 0;   // the first receivers
    uint64_t m_ullSkip = 0;  // messages before the first whose time counts
    pid_t m_Producer = 0;
    std::string m_strType;    // for programs with several kinds of connections
    std::string m_strPolicy;  // for programs with several ways to treat slow receivers
    bool m_bUser = false;     // forwards from a thread that is not the network thread
    std::string GetUrl() const { return "tcp://127.0.0.1:" + std::to_string(m_wPort); }
};

// Exits with the usage if the arguments are wrong.
CForwardWork ParseForwardWork(int aArgc, char** aArgv);

// The clock of a producer.
class CForwarding {
public:
    explicit CForwarding(const CForwardWork& aWork) : m_Work(aWork) {}

    void Start();
    bool IsDone() const { return m_ullNumber == m_Work.m_ullCount; }
    // Nanoseconds until the next message is due; 0: now.
    int64_t GetWait() const;
    // Waits until then.
    void Sleep() const;
    // Writes the next message into aMessage.
    void Fill(void* aMessage);
    // The same number again: the message was refused.
    void Undo() { --m_ullNumber; }
    // The thread's processor time that was spent in forwards.
    void AddTime(int64_t aNs) { m_llForward += aNs; }
    void Print() const;

private:
    const CForwardWork& m_Work;
    uint64_t m_ullNumber = 0;
    int64_t m_llStart = 0;
    int64_t m_llCpu = 0;
    int64_t m_llForward = 0;
};

// The calling thread's processor time.
int64_t ThreadCpuNs();

// Counts what the reading receivers get. One thread at a time.
class CDeliveries {
public:
    explicit CDeliveries(const CForwardWork& aWork);

    // Exits if the message is wrong or out of order.
    void Take(size_t aReceiver, const void* aMessage, size_t aSize);
    // All have the last message, or no delivery came for half a second. Call it a few times a second.
    bool IsOver();
    void Print() const;

private:
    void TakeTime(uint64_t aNumber, int64_t aSent, int64_t aNow);

    const CForwardWork& m_Work;
    const size_t m_nReading;
    std::vector<uint64_t> m_Next;         // the lowest number that each may get
    std::map<uint64_t, size_t> m_Partly;  // how many have it, of the messages that not all have
    CHistogram m_Latencies;
    uint64_t m_ullDelivered = 0;
    uint64_t m_ullSeen = 0;  // of these, by the last IsOver
    int64_t m_llSeen = 0;    // when IsOver last saw a new one
    size_t m_nFinished = 0;
    int64_t m_llFirst = 0;
    int64_t m_llLast = 0;
};

}  // namespace bench
