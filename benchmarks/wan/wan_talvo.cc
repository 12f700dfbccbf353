// A stream of a known pattern between two programs on this library: over a connection in messages of 16 KiB, or as the body of
// an HTTP answer in pieces of that size. The application's thread is the main thread; it uses proxies of objects in the network
// thread. No option is set.
//
//   bench_wan_talvo recv PORT BYTES TYPE            listens, accepts one connection, checks every byte, closes
//   bench_wan_talvo send ADDRESS PORT BYTES TYPE    connects, sends, waits for the close
//   bench_wan_talvo serve PORT BYTES                answers one request
//   bench_wan_talvo get ADDRESS PORT BYTES          sends a request, checks every byte
//
// TYPE: raw, length, package, nopartial or reliable; tls, of "recv" with CHAIN.pem and KEY.pem behind it; proxied, of "send"
// with the URI of an HTTP or SOCKS proxy behind it, of "recv" without.
#include <algorithm>
#include <optional>
#include <string>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"
#include "benchmarks/support/talvo_server.h"
#include "benchmarks/wan/pattern.h"

namespace {

using bench::Expect;

constexpr uint64_t PIECE = 16 * 1024;

void StopLoop() { CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop(); }

// A given number of bytes of the pattern, to send or to check.
class CPatternStream {
public:
    explicit CPatternStream(uint64_t aBytes) : m_ullBytes(aBytes) {}

    // Sends until aTransport takes no more. The next call, in OnSend, starts with the refused block.
    void SendTo(ICmTransport& aTransport) {
        while (m_Refused || MakeNext()) {
            const CmResult rv = aTransport.SendData(*m_Refused);
            if (rv == CM_ERROR_PARTIAL_DATA)
                return;
            Expect(rv);
            m_Refused.reset();
        }
    }

    void Check(const CCmMessageBlock& aData) {
        for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext())
            m_Pattern.Check(pBlock->GetTopLevelReadPtr(), pBlock->GetTopLevelLength());
    }

    // TRUE: all bytes were taken, or have been received.
    bool IsComplete() const { return !m_Refused && m_Pattern.GetDone() >= m_ullBytes; }
    uint64_t GetBytes() const { return m_ullBytes; }

private:
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
    std::optional<CCmMessageBlock> m_Refused;  // created and not taken yet
};

// The arguments from TYPE on.
struct CKind {
    CKind(int aCount, char** aWords) {
        const std::string strName = aCount > 0 ? aWords[0] : "";
        m_dwType = strName == "tls" ? CM_TRANSPORT_TYPE_TLS : bench::ConnectionType(strName == "proxied" ? "raw" : strName);
        if (strName == "tls" && aCount == 3)
            m_pContext = bench::MakeServerContext(aWords[1], aWords[2]);
        else if (strName == "proxied" && aCount == 2)
            Expect(CCmProxyRoute::FromUris(aWords[1], m_Route.emplace()));
        else if (aCount != 1)
            m_dwType = 0;
    }

    DWORD m_dwType;  // 0: the arguments are wrong
    CCmRefPtrT<CCmSslContext> m_pContext;
    std::optional<CCmProxyRoute> m_Route;
};

CCmRefPtrT<CCmSslContext> MakeClientContext() {
    CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
    Expect(pContext->SetVerify(CM_TLS_VERIFY_NONE));
    return pContext;
}

// An end of a connection. All sinks here belong to the main thread.
class CEnd : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CEnd(CKind aKind, uint64_t aBytes) : m_Kind(std::move(aKind)), m_Stream(aBytes) {}

    void Listen(const CCmInetAddr& aAddr) {
        Expect(CCmConnectionManager::Instance()->CreateConnectionServer(m_Kind.m_dwType, m_pAcceptor.ParaOut()));
        if (m_Kind.m_pContext)
            Expect(cm_get_connect_options(m_pAcceptor.Get())->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &m_Kind.m_pContext));
        Expect(m_pAcceptor->StartListen(this, aAddr));
        bench::PrintReady();
    }

    void Connect(const CCmInetAddr& aAddr) {
        m_bSends = true;
        Expect(CCmConnectionManager::Instance()->CreateConnectionClient(m_Kind.m_dwType, m_pConnector.ParaOut()));
        ICmConnectOptions* pOptions = cm_get_connect_options(m_pConnector.Get());
        if (m_Kind.m_dwType == CM_TRANSPORT_TYPE_TLS) {
            auto pContext = MakeClientContext();
            Expect(pOptions->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &pContext));
        }
        if (m_Kind.m_Route)
            Expect(pOptions->SetOption(CM_OPT_CONNECT_ROUTE, &*m_Kind.m_Route));
        m_pConnector->AsycConnect(this, aAddr);
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        Expect(aReason);
        m_pConnection = aTrpt;
        Expect(aTrpt->OpenWithSink(this));
        if (m_bSends)
            m_Stream.SendTo(*aTrpt);
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_Stream.Check(aData);
        if (!m_Stream.IsComplete())
            return;
        m_pConnection->Disconnect(CM_OK);
        StopLoop();
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (m_bSends)
            m_Stream.SendTo(*m_pConnection);
    }

    // The receiver closes when it has everything.
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        if (!m_Stream.IsComplete())
            Expect(aReason);
        StopLoop();
    }

private:
    CKind m_Kind;
    CPatternStream m_Stream;
    bool m_bSends = false;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pConnection;
};

class CServer : public ICmChannelServerAcceptorSink, public ICmChannelHttpServerSink {
public:
    explicit CServer(uint64_t aBytes) : m_Stream(aBytes) {}

    void Listen(const CCmInetAddr& aAddr) {
        Expect(CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut()));
        Expect(m_pAcceptor->StartListen(this, aAddr));
        bench::PrintReady();
    }

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_pChannel = aChannel;
        Expect(aChannel->ReceiveRequest(this));
        Expect(aChannel->BeginAnswer(m_Stream.GetBytes()));
        m_pAcceptor->StopListen(CM_OK);  // the answer is finished first
        m_Stream.SendTo(*aChannel);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Stream.SendTo(*m_pChannel); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Expect(aReason); }
    void OnStopped(ICmChannelServerAcceptor*) override { StopLoop(); }

private:
    CPatternStream m_Stream;
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
};

class CClient : public ICmChannelSink {
public:
    explicit CClient(uint64_t aBytes) : m_Stream(aBytes) {}

    void Get(const std::string& aUrl) {
        CCmRefPtrT<CCmHttpUrl> pUrl;
        Expect(CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), aUrl));
        Expect(CCmChannelManager::Instance()->CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get()));
        Expect(m_pChannel->AsyncOpen(this));
    }

    void OnConnect(CmResult aReason, ICmChannel*) override { Expect(aReason); }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { m_Stream.Check(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        Expect(m_Stream.IsComplete() ? aReason : CM_ERROR_FAILURE);
        StopLoop();
    }

private:
    CPatternStream m_Stream;
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
};

// Starts one end and runs the loop until it has finished.
template <class End, class Start>
void Run(End&& aEnd, Start aStart) {
    aStart(aEnd);
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
}

CCmInetAddr AddrOf(const char* aHost, const char* aPort) { return CCmInetAddr(aHost, static_cast<WORD>(std::atoi(aPort))); }
uint64_t BytesOf(const char* aText) { return std::strtoull(aText, nullptr, 10); }

}  // namespace

int main(int argc, char** argv) {
    const std::string strRole = argc > 1 ? argv[1] : "";
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    const int nBeforeType = strRole == "recv" ? 4 : 5;
    const CKind kind(argc - nBeforeType, argv + nBeforeType);
    if (strRole == "recv" && kind.m_dwType != 0)
        Run(CEnd(kind, BytesOf(argv[3])), [&](CEnd& aEnd) { aEnd.Listen(AddrOf("0.0.0.0", argv[2])); });
    else if (strRole == "send" && kind.m_dwType != 0)
        Run(CEnd(kind, BytesOf(argv[4])), [&](CEnd& aEnd) { aEnd.Connect(AddrOf(argv[2], argv[3])); });
    else if (strRole == "serve" && argc == 4)
        Run(CServer(BytesOf(argv[3])), [&](CServer& aServer) { aServer.Listen(AddrOf("0.0.0.0", argv[2])); });
    else if (strRole == "get" && argc == 5)
        Run(CClient(BytesOf(argv[4])),
            [&](CClient& aClient) { aClient.Get(std::string("http://") + argv[2] + ":" + argv[3] + "/"); });
    else {
        std::fputs("usage: see the head of wan_talvo.cc\n", stderr);
        return 2;
    }
    return 0;
}
