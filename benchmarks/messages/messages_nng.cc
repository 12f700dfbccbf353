// Messages on nng: push to pull for a stream, pair to pair for the ping-pong.
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "benchmarks/messages/work.h"
#include "benchmarks/support/system.h"

namespace {

class CEnd {
public:
    explicit CEnd(const bench::CMessageWork& aWork) : m_nSize(aWork.m_nSize) {
        Open(aWork.m_Role);
        const std::string strAddress = aWork.GetUrl();
        const bool bListener = aWork.IsListener();
        Expect(bListener ? nng_listen(m_Socket, strAddress.c_str(), nullptr, 0)
                         : nng_dial(m_Socket, strAddress.c_str(), nullptr, 0));
        if (bListener)
            bench::PrintReady();
    }

    void Send(uint64_t aNumber) {
        nng_msg* pMessage = nullptr;
        Expect(nng_msg_alloc(&pMessage, m_nSize));
        bench::FillMessage(nng_msg_body(pMessage), m_nSize, aNumber);
        Expect(nng_sendmsg(m_Socket, pMessage, 0));
    }

    bench::CArrived Receive() {
        nng_msg* pMessage = nullptr;
        Expect(nng_recvmsg(m_Socket, &pMessage, 0));
        const bench::CArrived arrived(nng_msg_body(pMessage), nng_msg_len(pMessage));
        nng_msg_free(pMessage);
        return arrived;
    }

private:
    void Open(bench::ERole aRole) {
        if (aRole == bench::ERole::SEND)
            Expect(nng_push0_open(&m_Socket));
        else
            Expect(aRole == bench::ERole::RECV ? nng_pull0_open(&m_Socket) : nng_pair0_open(&m_Socket));
    }

    static void Expect(int aResult) {
        if (aResult == 0)
            return;
        std::fprintf(stderr, "nng failed: %s\n", nng_strerror(aResult));
        std::exit(1);
    }

    const size_t m_nSize;
    nng_socket m_Socket = NNG_SOCKET_INITIALIZER;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunMessageWork<CEnd>(argc, argv); }
