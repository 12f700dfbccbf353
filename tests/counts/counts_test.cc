// The cost of a message in counts, which do not depend on the load of the machine. docs/performance.md shows them.

#include <unistd.h>

#include "benchmarks/counts/message_path.h"
#include "tests/support/test.h"
#include "tests/support/tls_certificates.h"

namespace {

constexpr DWORD RAW = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD LENGTH = RAW | CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = RAW | CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD RELIABLE = RAW | CCmConnectionManager::CTYPE_PDU_RELIABLE | CCmConnectionManager::CTYPE_RECONNECT_TOKEN;

// No more of each than this for a message.
struct CBound {
    const char* m_pName;
    double m_dCalls, m_dAllocations, m_dCopies, m_dLocks;
};

void Compare(const CBound& aBound, const CCost& aCost) {
    std::printf("%-32s %6.3f calls %6.3f allocations %6.3f copies %6.3f locks\n", aBound.m_pName, aCost.m_dCalls,
                aCost.m_dAllocations, aCost.m_dCopies, aCost.m_dLocks);
    EXPECT_LE(aCost.m_dCalls, aBound.m_dCalls) << aBound.m_pName;
    EXPECT_LE(aCost.m_dAllocations, aBound.m_dAllocations) << aBound.m_pName;
    EXPECT_LE(aCost.m_dCopies, aBound.m_dCopies) << aBound.m_pName;
    EXPECT_LE(aCost.m_dLocks, aBound.m_dLocks) << aBound.m_pName;
}

}  // namespace

TEST(CountsTest, Echo) {
    const CTestNetwork network;
    const CCost cost = EchoCost(network, TRUE, 2000, 64);
    EXPECT_GE(cost.m_dCalls, 3) << "not all that the library does is counted";
    // A wait, a receive and a send, on bytes that stay in the thread's receive buffer.
    Compare({"raw, network thread, echo 64 B", 3.05, 0.05, 0.05, 0.05}, cost);
    Compare({"raw, coroutine, echo 64 B", 3.05, 0.05, 0.05, 0.05}, CoroutineEchoCost(network, 2000, 64));
    // Besides these a wake-up to each thread, a write and a wait each, unless it is awake. Copied out of the receive buffer.
    // The allocations are those of both directions together.
    Compare({"raw, proxy, echo 64 B", 7.05, 3.05, 1.05, 11.2}, EchoCost(network, FALSE, 2000, 64));
    // The three calls of each end. OpenSSL copies a message and its record a few times; it has locks of its own kind.
    const CTestCertificates& made = CTestCertificates::Get();
    Compare({"TLS, both ends, echo 64 B", 6.1, 0.05, 12, 0.05},
            TlsEchoCost(network, made.MakeServer(), made.MakeClient(), 2000, 64));
}

TEST(CountsTest, HttpRequest) {
    // The same three calls. Channel and blocks are used again; the answer is written into the block that is sent, its head in
    // pieces.
    const CBound bound = {"HTTP, network thread, keep-alive", 3.05, 0.05, 1.35, 0.05};
    Compare(bound, HttpCost(CTestNetwork(), 2000));
    // The room that each read of the peer makes on a Unix socket wakes no loop.
    Compare(bound, HttpCost(CTestNetwork(), 2000, ("@talvo-counts-" + std::to_string(getpid())).c_str()));
}

TEST(CountsTest, Stream) {
    // How many messages share a call, a lock or a block depends on the turns that the threads take, hence the room. In each row
    // one allocation is the application's.
    const struct {
        DWORD m_dwType;
        DWORD m_dwSize;
        CBound m_Bound;
    } rows[] = {
        // Shared on the way down, which takes an item; copied out of the receive buffer with hundreds of others.
        {RAW, 64, {"raw, proxies, 64 B", 0.1, 2.1, 1.3, 1.2}},
        // About a chunk of 16 KiB a message on the way up, each received, copied and handed over by itself.
        {RAW, 16384, {"raw, proxies, 16 KiB", 7, 7, 1.05, 10}},
        // Copied into the queue of each proxy, behind its length, and out of the receive buffer; each time into a block that it
        // shares with others. Its two locks are those of the queues.
        {LENGTH, 64, {"length, 64 B", 0.1, 1.2, 4.4, 2.2}},
        // Shared but for the receive buffer; it comes in two chunks, since its length is in front of it.
        {LENGTH, 16384, {"length, 16 KiB", 7, 13, 1.05, 12}},
        // As with the length, but what waits to be sent is bounded by 64 KiB, so that fewer share a call.
        // Four copies, each of 64 bytes behind a header of 9.
        {PACKAGE, 64, {"package, 64 B", 0.6, 1.7, 4.6, 2.2}},
        {PACKAGE, 16384, {"package, 16 KiB", 7, 13, 1.05, 12}},
        // An allocation more, and a copy into it, for each message that waits for its acknowledgement.
        {RELIABLE, 64, {"reliable, 64 B", 0.6, 2.7, 6, 2.2}},
        {RELIABLE, 16384, {"reliable, 16 KiB", 7, 14, 1.05, 12}},
    };
    const CTestNetwork network;
    for (const auto& row : rows)
        Compare(row.m_Bound, StreamCost(network, row.m_dwType, row.m_dwSize == 64 ? 20000 : 500, row.m_dwSize));
}

TEST(CountsTest, Forward) {
    // A send for each receiver; the message is copied once for all of them, and all else is shared.
    const CTestNetwork network;
    const CCost cost = ForwardCost(network, TRUE, 200, 100, 64);
    Compare({"session, 200 receivers, 64 B", 1.05, 0.05, 0.05, 0.1}, cost);
    std::printf("session, 200 receivers, bytes of each %.0f\n", cost.m_dHeld);
    EXPECT_LE(cost.m_dHeld, 1360);
    Compare({"session, 50 receivers, 16 KiB", 1.2, 0.05, 0.05, 0.3}, ForwardCost(network, TRUE, 50, 4, 16384));
    // Its messages share turns.
    Compare({"session's proxy, 200 receivers, 64 B", 1.05, 0.05, 0.05, 0.1}, ForwardCost(network, FALSE, 200, 100, 64));
}
