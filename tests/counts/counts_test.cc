// The cost of a message in counts, which do not depend on the load of the machine. docs/performance.md shows them.

#include <linux/tcp.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <limits>

#include "benchmarks/counts/message_path.h"
#include "tests/support/test.h"
#include "tests/support/tls_peer.h"

namespace {

constexpr DWORD RAW = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD LENGTH = RAW | CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = RAW | CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD RELIABLE = RAW | CCmConnectionManager::CTYPE_PDU_RELIABLE | CCmConnectionManager::CTYPE_RECONNECT_TOKEN;

// No more of each than this for a message. One call, wake-up, allocation, copy or lock more fails the test.
struct CBound {
    const char* m_pName;
    double m_dCalls, m_dWakes, m_dAllocations, m_dCopies, m_dLocks;
};

// For slabs and buffers that many messages share, and the ticks of the loops.
constexpr double ROOM = 0.03;
// For the turns of two threads, or the sizes of receives, which decide how many messages share a call, a lock or a block.
constexpr double LARGE_ROOM = 0.5;
// No bound: OpenSSL's copies, and waits that depend on the peer's pace.
constexpr double ANY = std::numeric_limits<double>::infinity();
#ifdef NDEBUG
constexpr bool OPTIMISED = true;
#else
constexpr bool OPTIMISED = false;  // the copies of the few bytes of a header are calls, too
#endif

void Compare(const CBound& aBound, const CCost& aCost, double aRoom = ROOM) {
    std::printf("%-36s %6.3f calls %6.3f waits and wake-ups %6.3f allocations %6.3f copies %6.3f locks\n", aBound.m_pName,
                aCost.m_dCalls, aCost.m_dWakes, aCost.m_dAllocations, aCost.m_dCopies, aCost.m_dLocks);
    EXPECT_LE(aCost.m_dWakes, aBound.m_dWakes + aRoom) << aBound.m_pName;
    const struct {
        const char* m_pName;
        double m_dCost, m_dBound;
    } counts[] = {{"calls", aCost.m_dCalls, aBound.m_dCalls + aRoom},
                  {"allocations", aCost.m_dAllocations, aBound.m_dAllocations + aRoom},
                  {"copies", aCost.m_dCopies, OPTIMISED ? aBound.m_dCopies + ROOM : ANY},
                  {"locks", aCost.m_dLocks, aBound.m_dLocks + aRoom}};
    for (const auto& [pName, dCost, dBound] : counts) {
        EXPECT_LE(dCost, dBound) << aBound.m_pName << ", " << pName;
        if (dBound != ANY && OPTIMISED && aRoom < LARGE_ROOM) {
            EXPECT_GT(dCost + 1, dBound) << "the bound would not notice one more: " << aBound.m_pName << ", " << pName;
        }
    }
}

// Shakes hands, and sends close_notify with the last bytes of that. Its two sends are counted.
size_t ShakeHandsOnce(const CCmInetAddr& aAddr) {
    CTlsPeer client(ConnectPlain(aAddr), FALSE, TLS1_3_VERSION);
    const int fd = client.Socket().Get();
    const auto await = [&](short aEvents) {
        pollfd ready{fd, aEvents, 0};
        EXPECT_EQ(1, poll(&ready, 1, 10000));
        client.Receive();
    };
    await(POLLOUT);
    client.Send();
    while (!SSL_is_init_finished(client.Get()) && !testing::Test::HasFailure())
        await(POLLIN);
    SSL_shutdown(client.Get());
    client.Send();
    while (!client.HasEnd() && !testing::Test::HasFailure())
        await(POLLIN);
    tcp_info info{};
    socklen_t length = sizeof info;
    EXPECT_EQ(0, syscall(SYS_getsockopt, fd, IPPROTO_TCP, TCP_INFO, &info, &length));
    EXPECT_EQ(2u, info.tcpi_data_segs_in) << "the tickets and the end share one";
    return 1;
}

}  // namespace

TEST(CountsTest, Connection) {
    // Accept, watch, receive, send, and at the end two questions: is there more to read, and how much has the peer not got. A
    // receive with the accept is in vain if the peer's thread has not sent yet, and is then tried less often.
    const CTestNetwork network;
    Compare({"raw, connect, echo 64 B, close", 6.3, ANY, 2, 1, 0}, EchoOnceCost(network, 500, 64));
    // Accept, watch, close, and a receive and a send for each flight of the client's. The watch passes to the transport.
    // OpenSSL copies, too. Three allocations save a send of the tickets alone.
    const auto pServer = CTestCertificates::Get().MakeServer();
    Compare({"TLS, connect, close", 9, ANY, 12, ANY, 3}, TlsOnceCost(network, pServer, 200, ShakeHandsOnce));
}

TEST(CountsTest, Echo) {
    const CTestNetwork network;
    const CCost cost = EchoCost(network, TRUE, 2000, 64);
    EXPECT_GE(cost.m_dCalls + cost.m_dWakes, 3) << "not all that the library does is counted";
    // A wait, a receive and a send, on bytes that stay in the thread's receive buffer.
    Compare({"raw, network thread, echo 64 B", 2, 1, 0, 0, 0}, cost);
    Compare({"raw, coroutine, echo 64 B", 2, 1, 0, 0, 0}, CoroutineEchoCost(network, 2000, 64));
    // Besides these a wake-up to each thread, a write and a wait each, unless it is awake. Copied out of the receive buffer.
    // The allocations are those of both directions together.
    Compare({"raw, proxy, echo 64 B", 2, 5, 3, 1, 11}, EchoCost(network, FALSE, 2000, 64));
}

TEST(CountsTest, EchoAtBothEnds) {
    const CTestCertificates& made = CTestCertificates::Get();
    const struct {
        DWORD m_dwType;
        CBound m_Small, m_Large;
    } rows[] = {
        // The three calls of each end. A read that fills its 16 KiB is repeated.
        {RAW, {"raw, both ends, echo 64 B", 4, 2, 0, 0, 0}, {"raw, both ends, echo 16 KiB", 6, 2, 0, 0, 0}},
        {LENGTH, {"length, both ends, echo 64 B", 4, 2, 0, 0.1, 0}, {"length, both ends, echo 16 KiB", 4, 2, 0, 0, 0}},
        // Behind a header of 9 bytes. The blocks of 16 KiB are used again, with a lock to take one and a lock to give it back.
        {PACKAGE, {"package, both ends, echo 64 B", 4, 2, 2, 2.2, 0}, {"package, both ends, echo 16 KiB", 4, 2, 4, 2, 4}},
        {RELIABLE, {"reliable, both ends, echo 64 B", 4, 2, 2, 2.32, 0}, {"reliable, both ends, echo 16 KiB", 4, 2, 4, 2, 4}},
        // OpenSSL copies a message and its record a few times; it has locks of its own kind.
        {CM_TRANSPORT_TYPE_TLS,
         {"TLS, both ends, echo 64 B", 4, 2, 0, 8.44, 0},
         {"TLS, both ends, echo 16 KiB", 4, 1, 0, 6.01, 0}},
    };
    const CTestNetwork network;
    for (const auto& row : rows) {
        const bool bTls = row.m_dwType == CM_TRANSPORT_TYPE_TLS;
        const auto pServer = bTls ? made.MakeServer() : CCmRefPtrT<CCmSslContext>();
        const auto pClient = bTls ? made.MakeClient() : CCmRefPtrT<CCmSslContext>();
        Compare(row.m_Small, PairEchoCost(network, row.m_dwType, 2000, 64, pServer, pClient));
        Compare(row.m_Large, PairEchoCost(network, row.m_dwType, 500, 16384, pServer, pClient));
    }
}

TEST(CountsTest, HttpRequest) {
    // The same three calls. Channel and blocks are used again; the answer is written into the block that is sent, its head in
    // pieces.
    const CBound bound = {"HTTP, network thread, keep-alive", 2, 1, 0, 0.1, 0};
    Compare(bound, HttpCost(CTestNetwork(), 2000));
    // The room that each read of the peer makes on a Unix socket wakes no loop.
    Compare(bound, HttpCost(CTestNetwork(), 2000, ("@talvo-counts-" + std::to_string(getpid())).c_str()));
}

TEST(CountsTest, Stream) {
    // In each row one allocation is the application's.
    const struct {
        DWORD m_dwType;
        DWORD m_dwSize;
        CBound m_Bound;
    } rows[] = {
        // Shared on the way down, which takes an item; copied out of the receive buffer with hundreds of others.
        {RAW, 64, {"raw, proxies, 64 B", 0.02, 0, 2, 1, 1}},
        // Some four messages a receive. Copied once, and handed over in chunks.
        {RAW, 16384, {"raw, proxies, 16 KiB", 0.39, 0.07, 2, 1, 3.8}},
        // Copied into the queue of each proxy, behind its length, into a block that it shares with others. The lock is that of
        // the queue of sends; hundreds share that of the received ones.
        {LENGTH, 64, {"length, 64 B", 0, 0, 1.02, 2.07, 1.03}},
        // Shared but for the receive buffer, out of which it is copied into a block of its own, which is used again: two locks.
        {LENGTH, 16384, {"length, 16 KiB", 0.61, 0.1, 2.8, 1, 6.95}},
        // Two copies, each of 64 bytes behind a header of 5.
        {PACKAGE, 64, {"package, 64 B", 0, 0, 1.02, 2.08, 1.03}},
        {PACKAGE, 16384, {"package, 16 KiB", 0.61, 0.07, 3.6, 1, 6.95}},
        // An allocation more, and a copy into it, for each message that waits for its acknowledgement.
        {RELIABLE, 64, {"reliable, 64 B", 0.01, 0, 2, 3.29, 2.02}},
        {RELIABLE, 16384, {"reliable, 16 KiB", 0.73, 0.07, 5.83, 1, 6.95}},
    };
    for (const auto& row : rows) {
        const size_t stMessages = row.m_dwSize == 64 ? 20000 : 500;
        Compare(row.m_Bound, StreamCost(CTestNetwork(), row.m_dwType, stMessages, row.m_dwSize), LARGE_ROOM);
        // The same through the same proxies in one thread. The system decides only how much of 16 KiB a receive brings.
        const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
        const DWORD dwType = row.m_dwType | CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;
        Compare(row.m_Bound, StreamCost(network, dwType, stMessages, row.m_dwSize), row.m_dwSize == 64 ? ROOM : 0.2);
    }
}

TEST(CountsTest, PostsAndTimers) {
    const CTestNetwork network;
    // The lock of the queue; the event's memory comes from a slab.
    Compare({"post", 0, 0, 0, 0, 1}, PostCost(network, 10000));
    Compare({"timer, scheduled twice, cancelled", 0, 0, 0, 0, 0}, TimerCost(network, 10000));
}

TEST(CountsTest, Forward) {
    // A send for each receiver; the message is copied once for all of them, and all else is shared.
    const CTestNetwork network;
    const CCost cost = ForwardCost(network, TRUE, 200, 100, 64);
    Compare({"session, 200 receivers, 64 B", 1, 0, 0, 0, 0.02}, cost);
    std::printf("session, 200 receivers, bytes of each %.0f\n", cost.m_dHeld);
    EXPECT_LE(cost.m_dHeld, 1258);  // 1.2 MiB for a thousand
    // The message itself: a copy, and the locks of the call to the network thread. Its waits depend on the threads' turns.
    Compare({"session, 2 receivers, 64 B", 1, 1, 0, 0.5, 3.4}, ForwardCost(network, TRUE, 2, 2000, 64), 0.2);
    Compare({"session, 50 receivers, 16 KiB", 1, 0.05, 0, 0, 0.2}, ForwardCost(network, TRUE, 50, 4, 16384));
    // Its messages share turns.
    Compare({"session's proxy, 200 receivers, 64 B", 0, 0, 0, 0, 0}, ForwardCost(network, FALSE, 200, 100, 64));
}
