#include "tools/echo_server.h"

#include <algorithm>
#include <cstring>

#include "tools/endpoint.h"
#include "tools/listening.h"
#include "tools/outbox.h"

namespace tool {

// One client, or peer. While it does not read its own bytes, no more are read from it, so that memory stays limited to one
// read.
class EchoSession : public ICmTransportSink {
public:
    EchoSession(EchoServer& aServer, const Arguments& aArguments, const std::function<void(int64_t)>& aArrived,
                ICmTransport* aTransport)
        : m_Server(aServer), m_Arguments(aArguments), m_Arrived(aArrived), m_pTransport(aTransport) {}
    ~EchoSession() override { m_pTransport->Disconnect(CM_OK); }
    EchoSession(const EchoSession&) = delete;
    EchoSession& operator=(const EchoSession&) = delete;

    CmResult Open() { return m_pTransport->OpenWithSink(this); }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (m_Arguments.m_bDiscard)
            return Discard(aData);
        const CmResult rv = m_Outbox.Send(*m_pTransport, aData);
        if (rv == CM_ERROR_PARTIAL_DATA)
            PauseReading(TRUE);
        else if (rv != CM_OK)
            m_Server.Remove(this);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        const CmResult rv = m_Outbox.SendRest(*m_pTransport);
        if (rv == CM_OK)
            PauseReading(FALSE);
        else if (rv != CM_ERROR_PARTIAL_DATA)
            m_Server.Remove(this);
    }

    void OnDisconnect(CmResult, ICmTransport*) override { m_Server.Remove(this); }

private:
    void PauseReading(BOOL aPause) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause); }

    void Discard(const CCmMessageBlock& aData) {
        for (const CCmMessageBlock* p = &aData; p && m_Arrived; p = p->GetNext())
            TakeTimes({p->GetTopLevelReadPtr(), p->GetTopLevelLength()});
    }

    void TakeTimes(std::string_view aBytes) {
        while (!aBytes.empty()) {
            const size_t stTaken = std::min<size_t>(aBytes.size(), m_Arguments.m_dwSize - m_stAt);
            if (m_stAt < sizeof(m_llTime))
                std::memcpy(reinterpret_cast<char*>(&m_llTime) + m_stAt, aBytes.data(),
                            std::min(stTaken, sizeof(m_llTime) - m_stAt));
            m_stAt = (m_stAt + stTaken) % m_Arguments.m_dwSize;
            aBytes.remove_prefix(stTaken);
            if (m_stAt == 0)
                m_Arrived(m_llTime);
        }
    }

    EchoServer& m_Server;
    const Arguments& m_Arguments;
    const std::function<void(int64_t)>& m_Arrived;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
    size_t m_stAt = 0;  // bytes of the message that arrives
    int64_t m_llTime = 0;
};

EchoServer::EchoServer(const Arguments& aArguments, Console& aConsole) : m_Arguments(aArguments), m_Console(aConsole) {}

EchoServer::~EchoServer() {
    if (m_pAcceptor)
        m_pAcceptor->StopListen(CM_OK);
}

void EchoServer::Remove(EchoSession* aSession) { m_Sessions.erase(aSession); }

bool EchoServer::Start() { return StartListening(m_Arguments, this, m_Console, m_pAcceptor); }

CmResult EchoServer::StartQuietly(std::function<void(int64_t)> aArrived, CCmInetAddr& aListening) {
    m_Arrived = std::move(aArrived);
    return Listen(m_Arguments, this, m_pAcceptor, aListening);
}

void EchoServer::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return;
    // Without memory for it the client is disconnected. The others stay.
    talvo::WithMemory([&] {
        Console::Detail("connected to " + GetPeerText(*aTrpt));
        auto pSession = std::make_unique<EchoSession>(*this, m_Arguments, m_Arrived, aTrpt);
        if (pSession->Open() == CM_OK)
            m_Sessions.emplace(pSession.get(), std::move(pSession));
    });
}

}  // namespace tool
