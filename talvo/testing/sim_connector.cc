#include "talvo/testing/sim_connector.h"

#include <cerrno>
#include <utility>

#include "talvo/testing/sim_acceptor.h"
#include "talvo/testing/sim_reactor.h"
#include "talvo/testing/sim_transport.h"

namespace talvo {

namespace {

constexpr int64_t SYSTEM_LIMIT = 127000000;  // the system's limit; microseconds
constexpr const char* DEFAULT_LOCAL = "127.0.0.1";

}  // namespace

CSimConnector::CSimConnector(ICmReactor* aReactor, ACmConnectorUpper& aUpper, BOOL aDatagrams)
    : m_pCore(static_cast<CSimReactor*>(aReactor)->GetCore().shared_from_this()),
      m_pReactor(aReactor),
      m_Upper(aUpper),
      m_bDatagrams(aDatagrams) {}

CSimConnector::~CSimConnector() = default;

// Runs aRun if the current attempt still runs then. Otherwise this connector may be deleted already.
std::function<void()> CSimConnector::IfStill_i(void (CSimConnector::*aRun)()) {
    return [this, aRun, pAttempt = std::weak_ptr<CAttempt>(m_pAttempt)] {
        if (!pAttempt.expired())
            (this->*aRun)();
    };
}

void CSimConnector::After_i(int64_t aDelay, void (CSimConnector::*aRun)()) {
    m_pCore->m_Schedule.After(aDelay, IfStill_i(aRun));
}

int CSimConnector::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    m_Failure = {};
    CCmInetAddr addrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
    if (addrLocal.GetIpAddrIn4Bytes() == INADDR_ANY)
        addrLocal.SetIpAddrByString(DEFAULT_LOCAL);
    m_pAttempt = std::make_shared<CAttempt>(CAttempt{addrLocal, aAddr});
    if (m_pAttempt->m_AddrPeer.TryResolve() != CM_OK) {
        After_i(0, &CSimConnector::FailName_i);
        return 0;
    }
    const CCmSimLink& link = m_pCore->GetLink(m_pAttempt->m_AddrPeer);
    const int64_t llThereAndBack = m_pCore->DelayOf(link.m_Up) + m_pCore->DelayOf(link.m_Down) +
                                   m_pCore->m_Random.UpTo(link.m_Up.m_tvConnect.GetTotalInUsec());
    m_pCore->m_Trace.Note(m_pAttempt->m_AddrPeer, "is called");
    if (m_pCore->m_pObserver)
        m_pCore->m_pObserver->OnConnect(addrLocal, m_pAttempt->m_AddrPeer);
    After_i(m_bDatagrams ? 0 : llThereAndBack, &CSimConnector::Finish_i);
    After_i(SYSTEM_LIMIT, &CSimConnector::GiveUp_i);
    return 0;
}

void CSimConnector::Finish_i() {
    const CCmSimLink& link = m_pCore->GetLink(m_pAttempt->m_AddrPeer);
    const auto again = IfStill_i(&CSimConnector::Finish_i);
    if (!m_bDatagrams && (m_pCore->HoldWhileSilent(link.m_Up, again) || m_pCore->HoldWhileSilent(link.m_Down, again)))
        return;
    if (m_bDatagrams || m_pCore->FindAcceptor(m_pAttempt->m_AddrPeer, FALSE))
        Succeed_i();
    else
        Fail_i(CM_ERROR_NETWORK_CONNECT_ERROR, CCmFailure(ECONNREFUSED, "connect to", m_pAttempt->m_AddrPeer));
}

void CSimConnector::GiveUp_i() {
    Fail_i(CM_ERROR_NETWORK_CONNECT_ERROR, CCmFailure(ETIMEDOUT, "connect to", m_pAttempt->m_AddrPeer));
}

void CSimConnector::FailName_i() {
    Fail_i(CM_ERROR_NETWORK_DNS_FAILURE,
           CCmFailure(CM_FAILURE_NO_SUCH_NAME, "the name has no address", "connect to", m_pAttempt->m_AddrPeer));
}

void CSimConnector::Fail_i(CmResult aReason, const CCmFailure& aFailure) {
    m_Failure = aFailure;
    m_pCore->m_Trace.Note(std::exchange(m_pAttempt, nullptr)->m_AddrPeer, "does not answer");
    m_Upper.OnConnectIndication(aReason, nullptr, this);  // last: it may delete this connector
}

void CSimConnector::Succeed_i() {
    auto [addrLocal, addrPeer] = *std::exchange(m_pAttempt, nullptr);
    if (addrLocal.GetPort() == 0)
        addrLocal.SetPort(m_pCore->NewPort(addrLocal, addrPeer));
    if (addrLocal.GetPort() == 0 || m_pCore->FindEnd({addrLocal, addrPeer})) {
        m_Failure = CCmFailure(EADDRNOTAVAIL, "connect to", addrPeer);
        m_Upper.OnConnectIndication(CM_ERROR_NETWORK_CONNECT_ERROR, nullptr, this);  // last, as above
        return;
    }
    const CCmSimEnd end{addrLocal, addrPeer, m_bDatagrams};
    const CSocketSettings sizes = m_bDatagrams ? m_Sizes : m_Sizes.WithConfiguration();
    const CCmRefPtrT<CSimTransport> pTransport(new CSimTransport(*m_pCore, m_pReactor, end, sizes));
    m_pCore->m_Trace.Note(pTransport->Describe(), "connects");
    if (!m_bDatagrams)
        Answer_i(addrPeer, addrLocal);
    m_Upper.OnConnectIndication(CM_OK, pTransport.Get(), this);  // last, as above
}

// The other end of a stream exists at once; its acceptor indicates it later.
void CSimConnector::Answer_i(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) {
    const auto pAnswer = m_pCore->FindAcceptor(aLocal, FALSE)->MakeEnd(aLocal, aPeer);
    const CCmSimPath& path = m_pCore->GetLink(aLocal).m_Up;
    const int64_t llDelay = m_pCore->DelayOf(path) + m_pCore->m_Random.UpTo(path.m_tvBacklog.GetTotalInUsec());
    m_pCore->m_Schedule.After(llDelay, [&core = *m_pCore, pAnswer] {
        if (CSimAcceptor* pAcceptor = core.FindAcceptor(pAnswer->Describe().m_AddrLocal, FALSE))
            pAcceptor->Accept(pAnswer);
    });
}

}  // namespace talvo
