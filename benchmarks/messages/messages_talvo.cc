// Messages on this library's length-prefixed connection or, with --type package, its package connection. The application's
// thread is the main thread; connector, acceptor and connection are proxies of objects in the network thread.
#include <optional>

#include "benchmarks/messages/work.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"

namespace {

using bench::Expect;

// Main thread.
class CEnd : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    explicit CEnd(const bench::CMessageWork& aWork) : m_Work(aWork), m_Receiver(aWork), m_Pinger(aWork) {}

    void Start() {
        CCmInetAddr addr("127.0.0.1", m_Work.m_wPort);
        if (!m_Work.m_strPath.empty())
            Expect(addr.SetPath(m_Work.m_strPath.c_str()));
        CCmConnectionManager* pManager = CCmConnectionManager::Instance();
        if (!m_Work.IsListener()) {
            Expect(pManager->CreateConnectionClient(GetType(), m_pConnector.ParaOut()));
            m_pConnector->AsycConnect(this, addr);
            return;
        }
        Expect(pManager->CreateConnectionServer(GetType(), m_pAcceptor.ParaOut()));
        Expect(m_pAcceptor->StartListen(this, addr));
        bench::PrintReady();
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        Expect(aReason);
        m_pConnection = aTrpt;
        Expect(aTrpt->OpenWithSink(this));
        Expect(bench::PrepareForMessages(*aTrpt, static_cast<DWORD>(m_Work.m_nSize)));
        if (m_Work.m_Role == bench::ERole::SEND)
            Stream();
        else if (m_Work.m_Role == bench::ERole::PING)
            Send(m_Pinger.Next());
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        bench::CArrived arrived;
        arrived.m_nSize = aData.GetChainedLength();
        aData.Read(&arrived.m_ullNumber, sizeof(arrived.m_ullNumber), nullptr, FALSE);
        arrived.m_cLast = bench::LastByteOf(aData);
        Take(arrived);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (m_Work.m_Role == bench::ERole::SEND)
            Stream();
    }

    void OnDisconnect(CmResult, ICmTransport*) override { std::_Exit(0); }

private:
    DWORD GetType() const { return bench::MessageType(m_Work.m_strType.empty() ? "length" : m_Work.m_strType); }

    void Take(const bench::CArrived& aMessage) {
        switch (m_Work.m_Role) {
        case bench::ERole::SEND:
            break;
        case bench::ERole::RECV:
            if (!m_Receiver.Take(aMessage))
                End([this] { m_Receiver.Print(); });
            break;
        case bench::ERole::PONG:
            Send(bench::CheckMessage(aMessage, m_Work.m_nSize));
            break;
        case bench::ERole::PING:
            if (!m_Pinger.Take(aMessage))
                End([this] { m_Pinger.Print(); });
            Send(m_Pinger.Next());
            break;
        }
    }

    // Data in flight does not matter any more.
    template <class Function>
    [[noreturn]] void End(Function aPrint) {
        aPrint();
        std::_Exit(0);
    }

    void Send(uint64_t aNumber) {
        CCmMessageBlock message(static_cast<DWORD>(m_Work.m_nSize));
        Fill(message, aNumber);
        Expect(m_pConnection->SendData(message));
    }

    // Sends until the library takes no more. OnSend continues with the refused block.
    void Stream() {
        for (;; m_Refused.reset()) {
            if (!m_Refused)
                Fill(m_Refused.emplace(static_cast<DWORD>(m_Work.m_nSize)), m_ullNumber++);
            const CmResult rv = m_pConnection->SendData(*m_Refused);
            if (rv == CM_ERROR_PARTIAL_DATA || rv == CM_ERROR_NULL_POINTER)
                return;  // OnSend or OnDisconnect follows
            Expect(rv);
        }
    }

    void Fill(CCmMessageBlock& aMessage, uint64_t aNumber) const {
        bench::FillMessage(aMessage.GetTopLevelWritePtr(), m_Work.m_nSize, aNumber);
        aMessage.AdvanceTopLevelWritePtr(static_cast<DWORD>(m_Work.m_nSize));
    }

    const bench::CMessageWork& m_Work;
    bench::CStreamReceiver m_Receiver;
    bench::CPinger m_Pinger;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pConnection;
    std::optional<CCmMessageBlock> m_Refused;  // created and not taken yet
    uint64_t m_ullNumber = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const bench::CMessageWork work = bench::ParseMessageWork(argc, argv);
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    CEnd end(work);
    end.Start();
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
    return 0;
}
