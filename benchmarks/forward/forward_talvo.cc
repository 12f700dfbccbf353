// One to many on this library: a forward session to connections of one type. --type is raw, length (the default), package,
// nopartial or reliable; --policy is that of all receivers, wait (the default) or drop-oldest. The producer's thread is the
// network thread or, with --user, the main thread beside it.
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/forward/work.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"

namespace {

using bench::Expect;

constexpr size_t CONNECTS_AT_ONCE = 32;
constexpr size_t BYTES_A_TURN = 65536;
constexpr DWORD LONGEST_LAG = 64 << 20;  // bytes
constexpr long POLL_USEC = 100000;
constexpr DWORD COPIED = 1024;  // bytes of a message that Forward copies: its memory is reused

ICmReactor& MainReactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

DWORD TypeOf(const bench::CForwardWork& aWork) {
    return bench::ConnectionType(aWork.m_strType.empty() ? "length" : aWork.m_strType);
}

// Main thread.
class CProducer : public ICmAcceptorConnectorSink, public ICmForwardSink, public ICmTransportSink, public ICmTimerHandler {
public:
    explicit CProducer(const bench::CForwardWork& aWork) : m_Work(aWork), m_Forwarding(aWork) {}

    void Run() {
        Expect(CCmConnectionManager::Instance()->CreateForwardSession(this, m_pSession.ParaOut()));
        DWORD dwNone = 0;  // no receiver joins later
        Expect(m_pSession->SetOption(CM_OPT_FORWARD_HISTORY, &dwNone));
        Expect(CCmConnectionManager::Instance()->CreateConnectionServer(TypeOf(m_Work), m_pAcceptor.ParaOut()));
        Expect(m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", m_Work.m_wPort)));
        bench::PrintReady();
        MainReactor().RunEventLoop();
        m_Forwarding.Print();
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        CCmForwardReceiverOptions options;
        options.m_Policy = m_Work.m_strPolicy == "drop-oldest" ? CM_FORWARD_DROP_OLDEST : CM_FORWARD_WAIT;
        options.m_dwMaxBytes = options.m_Policy == CM_FORWARD_WAIT ? options.m_dwMaxBytes : LONGEST_LAG;
        DWORD dwId = 0;
        Expect(aReason);
        Expect(aTrpt->OpenWithSink(this));
        Expect(m_pSession->AddReceiver(aTrpt, options, dwId));
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}
    void OnJoin(DWORD) override {
        if (++m_nJoined < m_Work.m_nReceivers)
            return;
        m_Forwarding.Start();
        Turn();
    }
    void OnReceiver(DWORD, CmResult) override {
        if (--m_nJoined == 0)
            MainReactor().StopEventLoop();
    }
    void OnForward() override { Turn(); }
    void OnTimeout(const CCmTimeValue&, void*) override { Turn(); }

private:
    // Forwards what is due, with pauses for the loop.
    void Turn() {
        size_t nBytes = 0;
        for (; !m_Forwarding.IsDone() && m_Forwarding.GetWait() == 0 && nBytes < BYTES_A_TURN; nBytes += m_Work.m_nSize) {
            if (!ForwardNext())
                return;  // OnForward follows
        }
        if (!m_Forwarding.IsDone())
            Expect(
                MainReactor().ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec((m_Forwarding.GetWait() + 999) / 1000), 1));
    }
    bool ForwardNext() {
        const auto dwSize = static_cast<DWORD>(m_Work.m_nSize);
        CCmMessageBlock message(dwSize, dwSize <= COPIED ? m_Small : nullptr);
        m_Forwarding.Fill(message.GetTopLevelWritePtr());
        message.AdvanceTopLevelWritePtr(dwSize);
        const int64_t llBefore = m_Work.m_bUser ? bench::ThreadCpuNs() : 0;
        const CmResult rv = m_pSession->Forward(message);
        if (m_Work.m_bUser)
            m_Forwarding.AddTime(bench::ThreadCpuNs() - llBefore);
        if (rv == CM_ERROR_PARTIAL_DATA)
            m_Forwarding.Undo();
        else
            Expect(rv);
        return rv == CM_OK;
    }

    const bench::CForwardWork& m_Work;
    bench::CForwarding m_Forwarding;
    CCmRefPtrT<ICmForwardSession> m_pSession;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    size_t m_nJoined = 0;
    char m_Small[COPIED];
};

// Main thread, which is the network thread.
class CReceivers : public ICmAcceptorConnectorSink, public ICmTimerHandler {
public:
    explicit CReceivers(const bench::CForwardWork& aWork) : m_Work(aWork), m_Deliveries(aWork) {}

    void Run() {
        for (size_t n = 0; n < std::min(CONNECTS_AT_ONCE, m_Work.m_nReceivers); ++n) {
            CCmRefPtrT<ICmConnector> pConnector;
            Expect(CCmConnectionManager::Instance()->CreateConnectionClient(TypeOf(m_Work), pConnector.ParaOut()));
            m_Connectors.push_back(pConnector);
            ConnectNext(*pConnector);
        }
        Expect(MainReactor().ScheduleTimer(this, nullptr, CCmTimeValue(0, POLL_USEC), 0));
        MainReactor().RunEventLoop();
        m_Deliveries.Print();
        std::_Exit(0);
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override {
        Expect(aReason);
        m_Ends.emplace_back(*this, m_Ends.size(), aTrpt);
        ConnectNext(*static_cast<ICmConnector*>(aRequestId));
    }
    void OnTimeout(const CCmTimeValue&, void*) override {
        if (m_Deliveries.IsOver())
            MainReactor().StopEventLoop();
    }

private:
    class CEnd : public ICmTransportSink {
    public:
        CEnd(CReceivers& aReceivers, size_t aIndex, ICmTransport* aTransport)
            : m_Receivers(aReceivers), m_nIndex(aIndex), m_pTransport(aTransport) {
            BOOL bStopped = aIndex < aReceivers.m_Work.m_nStopped;
            Expect(aTransport->OpenWithSink(this));
            Expect(aTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bStopped));
        }
        // Messages may come in pieces, or, from a raw stream, several together.
        void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
            const size_t nSize = m_Receivers.m_Work.m_nSize;
            for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext()) {
                const char* pAt = pBlock->GetTopLevelReadPtr();
                const char* const pEnd = pAt + pBlock->GetTopLevelLength();
                while (pAt < pEnd) {
                    const size_t nTaken = std::min(nSize - m_strBegun.size(), static_cast<size_t>(pEnd - pAt));
                    if (nTaken == nSize)
                        m_Receivers.Take(m_nIndex, pAt);
                    else
                        m_strBegun.append(pAt, nTaken);
                    pAt += nTaken;
                    if (m_strBegun.size() < nSize)
                        continue;
                    m_Receivers.Take(m_nIndex, m_strBegun.data());
                    m_strBegun.clear();
                }
            }
        }
        void OnSend(ICmTransport*, CCmTransportParameter*) override {}
        void OnDisconnect(CmResult aReason, ICmTransport*) override { Expect(aReason); }

    private:
        CReceivers& m_Receivers;
        const size_t m_nIndex;
        CCmRefPtrT<ICmTransport> m_pTransport;
        std::string m_strBegun;
    };

    void ConnectNext(ICmConnector& aConnector) {
        if (m_nAsked++ < m_Work.m_nReceivers)
            aConnector.AsycConnect(this, CCmInetAddr("127.0.0.1", m_Work.m_wPort));
    }
    void Take(size_t aIndex, const void* aMessage) { m_Deliveries.Take(aIndex, aMessage, m_Work.m_nSize); }

    const bench::CForwardWork& m_Work;
    bench::CDeliveries m_Deliveries;
    std::vector<CCmRefPtrT<ICmConnector>> m_Connectors;
    std::deque<CEnd> m_Ends;
    size_t m_nAsked = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const bench::CForwardWork work = bench::ParseForwardWork(argc, argv);
    if (TypeOf(work) == 0) {
        std::fprintf(stderr, "no such type: %s\n", work.m_strType.c_str());
        return 2;
    }
    if (!work.m_bUser)
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    if (work.m_bReceives)
        CReceivers(work).Run();
    CProducer(work).Run();
    return 0;
}
