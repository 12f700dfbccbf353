#include "talvo/testing/sim_acceptor.h"

#include <cerrno>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/testing/sim_reactor.h"
#include "talvo/testing/sim_transport.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CSimAcceptor");

}  // namespace

CSimAcceptor::CSimAcceptor(BOOL aDatagrams)
    : m_pCore(static_cast<CSimReactor*>(static_cast<ICmReactor*>(m_pReactor))->GetCore().shared_from_this()),
      m_bDatagrams(aDatagrams) {
    ++s_Live;
}

CSimAcceptor::~CSimAcceptor() {
    CSimAcceptor::StopListen(CM_OK);
    --s_Live;
}

CmResult CSimAcceptor::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    m_Est.EnsureSingleThread();
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (const CmResult rv = CheckListen_i(); rv != CM_OK)
        return rv;
    CCmInetAddr addr = aAddrListen;
    if (addr.GetPort() == 0)
        addr.SetPort(m_pCore->NewPort(addr, CCmInetAddr::s_InetAddrAny));
    if (!addr.IsResolved() || m_pCore->FindAcceptor(addr, m_bDatagrams)) {
        m_Failure = CCmFailure(addr.IsResolved() ? EADDRINUSE : EADDRNOTAVAIL, "bind to", addr);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    m_Failure = {};
    m_pSink = aSink;
    m_AddrListen = addr;
    m_pCore->m_Acceptors[{addr, m_bDatagrams}] = this;
    m_pCore->m_Trace.Note(addr, "listens");
    Listening_i();
    return CM_OK;
}

CmResult CSimAcceptor::StopListen(CmResult) {
    m_Est.EnsureSingleThread();
    LeaveThread();
    if (!std::exchange(m_pSink, nullptr) || m_pCore->IsOver())
        return CM_OK;
    m_pCore->m_Acceptors.erase({m_AddrListen, m_bDatagrams});
    m_pCore->m_Trace.Note(m_AddrListen, "stops listening");
    if (m_pCore->m_pObserver)
        m_pCore->m_pObserver->OnStopListen(m_AddrListen);
    return CM_OK;
}

CmResult CSimAcceptor::GetListenAddr(CCmInetAddr& aAddr) {
    m_Est.EnsureSingleThread();
    if (!m_pSink)
        return CM_ERROR_NOT_INITIALIZED;
    aAddr = m_AddrListen;
    return CM_OK;
}

CCmRefPtrT<CSimTransport> CSimAcceptor::MakeEnd(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) {
    const CCmSimEnd end{aLocal, aPeer, m_bDatagrams, TRUE};
    const CSocketSettings sizes = m_bDatagrams ? m_Sockets : m_Sockets.WithConfiguration();
    return CCmRefPtrT<CSimTransport>(new CSimTransport(*m_pCore, m_pReactor, end, sizes));
}

// Like the sockets' acceptors, it accesses no member after the upcall.
void CSimAcceptor::Accept(CCmRefPtrT<CSimTransport> aTransport) {
    m_pCore->m_Trace.Note(aTransport->Describe(), "is accepted");
    m_pSink->OnConnectIndication(CM_OK, aTransport.Get(), this);
}

void CSimAcceptor::AcceptDatagram(const CSimCore::CEndKey& aKey, const std::string& aBytes) {
    const auto pTransport = MakeEnd(aKey.first, aKey.second);
    Accept(pTransport);
    if (pTransport->GetReference() > 1)
        pTransport->TakeDatagram(aBytes);
}

}  // namespace talvo
