// Messages on ZeroMQ: PUSH to PULL for a stream, PAIR to PAIR for the ping-pong.
#include <zmq.h>

#include <string>

#include "benchmarks/messages/work.h"
#include "benchmarks/support/system.h"

namespace {

class CEnd {
public:
    explicit CEnd(const bench::CMessageWork& aWork) : m_nSize(aWork.m_nSize) {
        m_pSocket = zmq_socket(m_pContext, TypeFor(aWork.m_Role));
        const std::string strAddress = aWork.GetUrl();
        const bool bListener = aWork.IsListener();
        Expect(bListener ? zmq_bind(m_pSocket, strAddress.c_str()) : zmq_connect(m_pSocket, strAddress.c_str()));
        if (bListener)
            bench::PrintReady();
    }

    void Send(uint64_t aNumber) {
        zmq_msg_t message;
        Expect(zmq_msg_init_size(&message, m_nSize));
        bench::FillMessage(zmq_msg_data(&message), m_nSize, aNumber);
        Expect(zmq_msg_send(&message, m_pSocket, 0));
    }

    bench::CArrived Receive() {
        zmq_msg_t message;
        Expect(zmq_msg_init(&message));
        Expect(zmq_msg_recv(&message, m_pSocket, 0));
        const bench::CArrived arrived(zmq_msg_data(&message), zmq_msg_size(&message));
        Expect(zmq_msg_close(&message));
        return arrived;
    }

private:
    static int TypeFor(bench::ERole aRole) {
        if (aRole == bench::ERole::SEND)
            return ZMQ_PUSH;
        return aRole == bench::ERole::RECV ? ZMQ_PULL : ZMQ_PAIR;
    }

    static void Expect(int aResult) {
        if (aResult == -1)
            bench::Fail("zmq");
    }

    const size_t m_nSize;
    void* m_pContext = zmq_ctx_new();
    void* m_pSocket = nullptr;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunMessageWork<CEnd>(argc, argv); }
