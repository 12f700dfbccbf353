// One to many on nng: pub0 to sub0, whose receivers run asynchronously in the library's threads.
#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "benchmarks/forward/work.h"
#include "benchmarks/support/system.h"

namespace {

constexpr useconds_t POLL_USEC = 10000;

std::atomic<size_t> g_Connected{0};

void Expect(int aResult) {
    if (aResult == 0)
        return;
    std::fprintf(stderr, "nng failed: %s\n", nng_strerror(aResult));
    std::exit(1);
}

void CountPipe(nng_pipe, nng_pipe_ev aEvent, void*) {
    if (aEvent == NNG_PIPE_EV_ADD_POST)
        ++g_Connected;
    else
        --g_Connected;
}

void AwaitReceivers(size_t aNumber) {
    while (g_Connected != aNumber)
        usleep(1000);
}

int RunProducer(const bench::CForwardWork& aWork) {
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    Expect(nng_pub0_open(&socket));
    Expect(nng_pipe_notify(socket, NNG_PIPE_EV_ADD_POST, CountPipe, nullptr));
    Expect(nng_pipe_notify(socket, NNG_PIPE_EV_REM_POST, CountPipe, nullptr));
    Expect(nng_listen(socket, aWork.GetUrl().c_str(), nullptr, 0));
    bench::PrintReady();
    AwaitReceivers(aWork.m_nReceivers);
    bench::CForwarding forwarding(aWork);
    forwarding.Start();
    const int64_t llBefore = bench::ThreadCpuNs();
    while (!forwarding.IsDone()) {
        forwarding.Sleep();
        nng_msg* pMessage = nullptr;
        Expect(nng_msg_alloc(&pMessage, aWork.m_nSize));
        forwarding.Fill(nng_msg_body(pMessage));
        Expect(nng_sendmsg(socket, pMessage, 0));
    }
    forwarding.AddTime(bench::ThreadCpuNs() - llBefore);
    AwaitReceivers(0);
    forwarding.Print();
    std::_Exit(0);
}

class CReceivers {
public:
    explicit CReceivers(const bench::CForwardWork& aWork) : m_Work(aWork), m_Deliveries(aWork) {
        for (size_t n = 0; n < aWork.m_nReceivers; ++n)
            m_Ends.push_back(std::make_unique<CEnd>(*this, n));
    }
    void AwaitEnd() {
        for (bool bOver = false; !bOver; usleep(POLL_USEC)) {
            const std::lock_guard guard(m_Mutex);
            bOver = m_Deliveries.IsOver();
        }
        const std::lock_guard guard(m_Mutex);
        m_Deliveries.Print();
        std::_Exit(0);
    }

private:
    struct CEnd {
        CEnd(CReceivers& aReceivers, size_t aNumber) : m_Receivers(aReceivers), m_nNumber(aNumber) {
            Expect(nng_sub0_open(&m_Socket));
            Expect(nng_setopt(m_Socket, NNG_OPT_SUB_SUBSCRIBE, "", 0));
            Expect(nng_dial(m_Socket, aReceivers.m_Work.GetUrl().c_str(), nullptr, 0));
            if (aNumber < aReceivers.m_Work.m_nStopped)
                return;
            Expect(nng_aio_alloc(
                &m_pAio, [](void* aEnd) { static_cast<CEnd*>(aEnd)->Take(); }, this));
            nng_recv_aio(m_Socket, m_pAio);
        }
        void Take() {
            if (nng_aio_result(m_pAio) != 0)
                return;
            nng_msg* pMessage = nng_aio_get_msg(m_pAio);
            {
                const std::lock_guard guard(m_Receivers.m_Mutex);
                m_Receivers.m_Deliveries.Take(m_nNumber, nng_msg_body(pMessage), nng_msg_len(pMessage));
            }
            nng_msg_free(pMessage);
            nng_recv_aio(m_Socket, m_pAio);
        }

        CReceivers& m_Receivers;
        const size_t m_nNumber;
        nng_socket m_Socket = NNG_SOCKET_INITIALIZER;
        nng_aio* m_pAio = nullptr;
    };

    const bench::CForwardWork& m_Work;
    std::mutex m_Mutex;
    bench::CDeliveries m_Deliveries;  // under the mutex
    std::vector<std::unique_ptr<CEnd>> m_Ends;
};

}  // namespace

int main(int argc, char** argv) {
    const bench::CForwardWork work = bench::ParseForwardWork(argc, argv);
    if (!work.m_bReceives)
        return RunProducer(work);
    CReceivers(work).AwaitEnd();
}
