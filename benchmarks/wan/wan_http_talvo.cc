// A body over HTTP, between this library's server and its client channel. The application's thread is the main thread, both
// ends' connections live in the network thread. No option is set.
//
//   bench_wan_http_talvo serve PORT BYTES          answers one request, in pieces of 16 KiB
//   bench_wan_http_talvo get ADDRESS PORT BYTES    asks, checks every byte
#include <algorithm>
#include <optional>
#include <string>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"
#include "benchmarks/wan/pattern.h"

namespace {

using bench::Expect;

constexpr uint64_t PIECE = 16 * 1024;

void StopLoop() { CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop(); }

class CServer : public ICmChannelServerAcceptorSink, public ICmChannelHttpServerSink {
public:
    explicit CServer(uint64_t aBytes) : m_ullBytes(aBytes) {}

    void Start(const CCmInetAddr& aAddr) {
        Expect(CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut()));
        Expect(m_pAcceptor->StartListen(this, aAddr));
        bench::PrintReady();
    }

    void Close() {
        m_pChannel.Reset();
        m_pAcceptor.Reset();
    }

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_pChannel = aChannel;
        Expect(aChannel->ReceiveRequest(this));
        Expect(aChannel->BeginAnswer(m_ullBytes));
        m_pAcceptor->StopListen(CM_OK);  // the answer is finished first
        Stream();
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override { Stream(); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Expect(aReason); }
    void OnStopped(ICmChannelServerAcceptor*) override { StopLoop(); }

private:
    void Stream() {
        while (m_Refused || MakeNext()) {
            const CmResult rv = m_pChannel->SendData(*m_Refused);
            if (rv == CM_ERROR_PARTIAL_DATA)
                return;  // OnSend follows
            Expect(rv);
            m_Refused.reset();
        }
    }

    bool MakeNext() {
        const auto dwLength = static_cast<DWORD>(std::min(m_ullBytes - m_Pattern.GetDone(), PIECE));
        if (dwLength == 0)
            return false;
        m_Refused.emplace(dwLength);
        std::copy_n(m_Pattern.Next(), dwLength, m_Refused->GetTopLevelWritePtr());
        m_Refused->AdvanceTopLevelWritePtr(dwLength);
        m_Pattern.Advance(dwLength);
        return true;
    }

    const uint64_t m_ullBytes;
    bench::CPattern m_Pattern;
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    std::optional<CCmMessageBlock> m_Refused;  // made and not taken yet
};

class CClient : public ICmChannelSink {
public:
    explicit CClient(uint64_t aBytes) : m_ullBytes(aBytes) {}

    void Start(const std::string& aUrl) {
        CCmRefPtrT<CCmHttpUrl> pUrl;
        Expect(CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), aUrl));
        Expect(CCmChannelManager::Instance()->CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get()));
        Expect(m_pChannel->AsyncOpen(this));
    }

    void Close() { m_pChannel.Reset(); }

    void OnConnect(CmResult aReason, ICmChannel*) override { Expect(aReason); }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext())
            m_Pattern.Check(pBlock->GetTopLevelReadPtr(), pBlock->GetTopLevelLength());
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        Expect(m_Pattern.GetDone() == m_ullBytes ? aReason : CM_ERROR_FAILURE);
        StopLoop();
    }

private:
    const uint64_t m_ullBytes;
    bench::CPattern m_Pattern;
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
};

}  // namespace

int main(int argc, char** argv) {
    const std::string strRole = argc > 1 ? argv[1] : "";
    const bool bServes = strRole == "serve";
    if ((strRole != "get" && !bServes) || argc != (bServes ? 4 : 5)) {
        std::fputs("usage: bench_wan_http_talvo serve PORT BYTES | get ADDRESS PORT BYTES\n", stderr);
        return 2;
    }
    bench::CTalvoProcess process(argc, argv);
    const uint64_t ullBytes = std::strtoull(argv[argc - 1], nullptr, 10);
    CServer server(ullBytes);
    CClient client(ullBytes);
    if (bServes)
        server.Start(CCmInetAddr("0.0.0.0", static_cast<WORD>(std::atoi(argv[2]))));
    else
        client.Start(std::string("http://") + argv[2] + ":" + argv[3] + "/");
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
    client.Close();
    server.Close();
    return 0;
}
