#include "talvo/transport/transport_base.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/transport/transport_linger.h"

CmResult CCmTransportBase::OpenWithSink(ICmTransportSink* aSink) {
    m_Est.EnsureSingleThread();
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (std::exchange(m_pSink, aSink))
        return CM_OK;
    const CmResult rv = Open_t();
    if (rv != CM_OK) {
        Close_t(CM_OK);
        m_pSink = nullptr;
    } else {
        Opened_i();
    }
    return rv;
}

CmResult CCmTransportBase::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    const CmResult rv = Close_t(aReason);
    m_pSink = nullptr;
    return rv;
}

int CCmTransportBase::OnClose(HANDLE, long) {
    m_Est.EnsureSingleThread();
    const CmResult reason = GetEndReason_i();
    Close_t(CM_OK);
    if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnDisconnect(reason, this);
    return 0;
}

// The system already has all data taken; the linger only waits for the peer's acknowledgement.
void CCmTransportBase::EndInOrder_i(BOOL aCut) {
    SetLayered_i(TRUE);
    if (aCut || !talvo::CTransportLinger::Begin(*this, nullptr))
        Disconnect(CM_OK);
}

// A user that only releases has taken no decision against the data that was taken.
void CCmTransportBase::OnReferenceDestory() {
    Disconnect(CM_OK);
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

void CCmTransportBase::NoteFailure_i(const CWayToFail& aWay, int aErrno) {
    if (HasFailed_i() || (aWay.m_Cause == CM_FAILURE_SYSTEM && aErrno == 0))
        return;
    m_pFailure = &aWay;
    m_nErrno = aErrno;
}

CCmFailure CCmTransportBase::GetFailure_i(const CCmInetAddr& aPeer) const {
    if (!HasFailed_i())
        return {};
    const CWayToFail& way = *m_pFailure;
    return m_nErrno != 0 ? CCmFailure(m_nErrno, way.m_pVerb, aPeer) : CCmFailure(way.m_Cause, way.m_pText, way.m_pVerb, aPeer);
}

void CCmTransportBase::RemoveFromReactor_i() { m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK); }

CmResult CCmTransportBase::SetTos2Socket(CCmSocketBase& aSocket, void* aTos) {
    int nTos = 0;
    int nLength = sizeof nTos;
    if (aSocket.GetOption(IPPROTO_IP, IP_TOS, &nTos, &nLength) == -1)
        CM_ERROR_TRACE("CCmTransportBase::SetTos2Socket, GetOption(IP_TOS) failed! err=" << errno);
    nTos = static_cast<int>(*static_cast<DWORD*>(aTos));
    // An IPv6 socket has both fields, because its peers may be IPv4.
    int nFamily = 0;
    nLength = sizeof nFamily;
    aSocket.GetOption(SOL_SOCKET, SO_DOMAIN, &nFamily, &nLength);
    const int nClass = nTos & 0xFF;
    if (nFamily == AF_INET6 && aSocket.SetOption(IPPROTO_IPV6, IPV6_TCLASS, &nClass, sizeof nClass) == -1) {
        CM_ERROR_TRACE("CCmTransportBase::SetTos2Socket, SetOption(IPV6_TCLASS) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    if (aSocket.SetOption(IPPROTO_IP, IP_TOS, &nTos, sizeof nTos) == -1) {
        CM_ERROR_TRACE("CCmTransportBase::SetTos2Socket, SetOption(IP_TOS) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    return CM_OK;
}
