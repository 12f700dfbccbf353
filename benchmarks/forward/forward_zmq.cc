// One to many on ZeroMQ: XPUB, which differs from PUB only by the report of subscriptions, to SUB. --type unlimited sets the
// high-water mark of the producer to 0: no message is dropped there.
#include <zmq.h>

#include <vector>

#include "benchmarks/forward/work.h"
#include "benchmarks/support/system.h"

namespace {

constexpr size_t MOST_AT_ONCE = 64;  // messages of one receiver, then the next one's turn
constexpr long POLL_MS = 100;

void Expect(int aResult) {
    if (aResult == -1)
        bench::Fail("zmq");
}

void* MakeContext(size_t aSockets) {
    void* pContext = zmq_ctx_new();
    Expect(zmq_ctx_set(pContext, ZMQ_MAX_SOCKETS, static_cast<int>(aSockets) + 8));
    return pContext;
}

// A subscription or, when a receiver has left, its end.
void Await(void* aSocket, size_t aReports) {
    char report[8];
    for (size_t n = 0; n < aReports; ++n)
        Expect(zmq_recv(aSocket, report, sizeof(report), 0));
}

int RunProducer(const bench::CForwardWork& aWork) {
    void* pSocket = zmq_socket(MakeContext(1), ZMQ_XPUB);
    const int nAll = 1, nUnlimited = 0;
    Expect(zmq_setsockopt(pSocket, ZMQ_XPUB_VERBOSER, &nAll, sizeof(nAll)));
    Expect(zmq_setsockopt(pSocket, ZMQ_BACKLOG, &bench::BACKLOG, sizeof(bench::BACKLOG)));
    if (aWork.m_strType == "unlimited")
        Expect(zmq_setsockopt(pSocket, ZMQ_SNDHWM, &nUnlimited, sizeof(nUnlimited)));
    Expect(zmq_bind(pSocket, aWork.GetUrl().c_str()));
    bench::PrintReady();
    Await(pSocket, aWork.m_nReceivers);
    bench::CForwarding forwarding(aWork);
    forwarding.Start();
    const int64_t llBefore = bench::ThreadCpuNs();
    while (!forwarding.IsDone()) {
        forwarding.Sleep();
        zmq_msg_t message;
        Expect(zmq_msg_init_size(&message, aWork.m_nSize));
        forwarding.Fill(zmq_msg_data(&message));
        Expect(zmq_msg_send(&message, pSocket, 0));
    }
    forwarding.AddTime(bench::ThreadCpuNs() - llBefore);
    Await(pSocket, aWork.m_nReceivers);
    forwarding.Print();
    return 0;
}

void TakeAll(void* aSocket, size_t aReceiver, bench::CDeliveries& aDeliveries) {
    zmq_msg_t message;
    Expect(zmq_msg_init(&message));
    for (size_t n = 0; n < MOST_AT_ONCE && zmq_msg_recv(&message, aSocket, ZMQ_DONTWAIT) != -1; ++n)
        aDeliveries.Take(aReceiver, zmq_msg_data(&message), zmq_msg_size(&message));
    Expect(zmq_msg_close(&message));
}

int RunReceivers(const bench::CForwardWork& aWork) {
    void* pContext = MakeContext(aWork.m_nReceivers);
    std::vector<void*> sockets;
    std::vector<zmq_pollitem_t> items;
    for (size_t n = 0; n < aWork.m_nReceivers; ++n) {
        sockets.push_back(zmq_socket(pContext, ZMQ_SUB));
        if (!sockets.back())
            bench::Fail("zmq_socket");
        Expect(zmq_setsockopt(sockets.back(), ZMQ_SUBSCRIBE, "", 0));
        Expect(zmq_connect(sockets.back(), aWork.GetUrl().c_str()));
        if (n >= aWork.m_nStopped)
            items.push_back({sockets.back(), 0, ZMQ_POLLIN, 0});
    }
    bench::CDeliveries deliveries(aWork);
    while (!deliveries.IsOver()) {
        Expect(zmq_poll(items.data(), static_cast<int>(items.size()), POLL_MS));
        for (size_t n = 0; n < items.size(); ++n) {
            if (items[n].revents != 0)
                TakeAll(items[n].socket, aWork.m_nStopped + n, deliveries);
        }
    }
    deliveries.Print();
    std::_Exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const bench::CForwardWork work = bench::ParseForwardWork(argc, argv);
    return work.m_bReceives ? RunReceivers(work) : RunProducer(work);
}
