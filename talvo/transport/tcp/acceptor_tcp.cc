#include "talvo/transport/tcp/acceptor_tcp.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/dns/name_lookup.h"
#include "talvo/transport/tcp/transport_tcp.h"

namespace {

CCmLiveCounter s_Live("CCmAcceptorTcp");

constexpr int BACKLOG = 1024;
constexpr long PAUSE_USEC = 100000;

BOOL IsOutOfDescriptors(int aError) { return aError == EMFILE || aError == ENFILE || aError == ENOBUFS || aError == ENOMEM; }

BOOL IsAnyAddress(const CCmInetAddr& aAddr) {
    const talvo::CIpBytes ip = aAddr.GetIpBytes();
    return ip == talvo::CIpBytes::OfIpv4(INADDR_ANY) || ip == talvo::CIpBytes::OfIpv6(in6addr_any);
}

}  // namespace

CCmAcceptorTcp::CCmAcceptorTcp(std::shared_ptr<talvo::IHandshakeMaker> aHandshakes) : m_pHandshakes(std::move(aHandshakes)) {
    ++s_Live;
}

CCmAcceptorTcp::~CCmAcceptorTcp() {
    StopListen(CM_OK);
    --s_Live;
}

CCmRefPtrT<ICmAcceptor> CCmAcceptorTcp::Make(const CCmAcceptorSettings& aSettings) {
    return new (std::nothrow) CCmAcceptorTcp(aSettings.m_pHandshakes);
}

CmResult CCmAcceptorTcp::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    m_Est.EnsureSingleThread();
    if (GetHandle() != CM_INVALID_HANDLE)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    CmResult rv = CheckListen_i();
    if (rv != CM_OK)
        return rv;
    m_pSink = aSink;
    m_Failure = {};
    rv = Prepare_i(aAddrListen);
    if (rv == CM_OK)
        rv = Bind_i(aAddrListen);
    if (rv == CM_OK) {
        rv = m_pReactor->RegisterHandler(this, ACCEPT_MASK | ONE_EACH_MASK);
        if (rv != CM_OK)
            m_Failure = CCmFailure(errno, "watch the port", aAddrListen);
    }
    if (rv != CM_OK) {
        StopListen(rv);
        return rv;
    }
    Listening_i();
    m_bOneLocal = m_Socket.GetLocalAddr(m_AddrListen) == 0 && !IsAnyAddress(m_AddrListen);
    CM_INFO_TRACE_THIS("CCmAcceptorTcp::StartListen, addr=" << aAddrListen.GetIpDisplayName()
                                                            << " port=" << aAddrListen.GetPort() << " aSink="
                                                            << static_cast<const void*>(aSink) << " fd=" << GetHandle());
    return CM_OK;
}

CmResult CCmAcceptorTcp::Bind_i(const CCmInetAddr& aAddrListen) {
    const auto failed = [&](const char* aCall, const char* aVerb) {
        m_Failure = CCmFailure(errno, aVerb, aAddrListen);
        CM_ERROR_TRACE_THIS("CCmAcceptorTcp::StartListen, " << aCall << "() failed! addr=" << aAddrListen.GetIpDisplayName()
                                                            << " port=" << aAddrListen.GetPort()
                                                            << " err=" << m_Failure.GetErrno());
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    };
    if (!talvo::CNameLookup::HasAddress(aAddrListen, m_Failure))
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (m_Socket.OpenFor(aAddrListen, SOCK_STREAM, TRUE) == -1)
        return failed("Open", "open a socket for");
    m_Listening = m_Sockets.WithConfiguration();
    m_Listening.ApplyTo(m_Socket);
    const auto* pAddr = reinterpret_cast<const sockaddr*>(aAddrListen.GetPtr());
    const BOOL bPath = aAddrListen.GetType() == AF_UNIX;
    const int nOn = 1;
    m_bUndelayed = !bPath && m_Socket.SetOption(IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn) == 0;
    if ((bPath ? m_Path.Listen(m_Socket, aAddrListen, BACKLOG) : bind(GetHandle(), pAddr, aAddrListen.GetSize())) == -1)
        return failed("bind", "bind to");
    // Non-blocking: a peer that closes between the report and the accept must not block the thread.
    if (m_Socket.Enable(CCmIPCBase::NON_BLOCK) == -1 || (!bPath && listen(GetHandle(), BACKLOG) == -1)) {
        m_Failure = CCmFailure(errno, "listen on", aAddrListen);
        CM_ERROR_TRACE_THIS("CCmAcceptorTcp::StartListen, listen() failed! err=" << m_Failure.GetErrno());
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    return CM_OK;
}

CmResult CCmAcceptorTcp::StopListen(CmResult aReason) {
    m_Est.EnsureSingleThread();
    LeaveThread();
    m_Retry.Cancel();
    if (GetHandle() != CM_INVALID_HANDLE) {
        if (std::exchange(m_Pause, NOT) != NOT)
            m_pReactor->CancelTimer(this);
        else
            m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
        m_Path.Remove();
        m_Socket.Close(aReason);
    }
    m_Shaking.CloseAll();
    m_pSink = nullptr;
    return CM_OK;
}

CmResult CCmAcceptorTcp::GetListenAddr(CCmInetAddr& aAddr) {
    m_Est.EnsureSingleThread();
    if (GetHandle() == CM_INVALID_HANDLE)
        return CM_ERROR_NOT_INITIALIZED;
    return m_Socket.GetLocalAddr(aAddr) == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
}

// Accesses no member after the upcall, which may have released this acceptor.
int CCmAcceptorTcp::OnInput(HANDLE aFd) {
    m_Est.EnsureSingleThread();
    if (m_pHandshakes && !MakeRoom_i())
        return 0;
    CCmRefPtrT<CCmTransportTcp> pTransport = talvo::MakeTcpTransport(m_pReactor, m_pHandshakes.get());
    if (!pTransport) {
        OutOfDescriptors_i(ENOMEM);
        return 0;
    }
    sockaddr_storage peer;
    socklen_t length = sizeof peer;
    constexpr int FLAGS = SOCK_CLOEXEC | SOCK_NONBLOCK;  // as part of the call they cost nothing and cannot fail
    const HANDLE fdNew = accept4(aFd, reinterpret_cast<sockaddr*>(&peer), &length, FLAGS);
    if (fdNew == CM_INVALID_HANDLE) {
        AcceptFailed_i(errno);
        return 0;
    }
    pTransport->GetPeer().SetHandle(fdNew);
    pTransport->SetReadSize(m_Listening.m_dwReadSize);
    CCmInetAddr addrPeer;
    if (cm_from_sockaddr(reinterpret_cast<const sockaddr*>(&peer), length, addrPeer) != CM_OK) {
        CM_WARNING_TRACE_THIS("CCmAcceptorTcp::OnInput, no memory for the address of a peer. sockNew=" << fdNew);
        return 0;
    }
    pTransport->SetPeerAddr(addrPeer);
    if (addrPeer.GetType() == AF_UNIX)  // accepted ones have the system's sizes
        m_Listening.ApplyTo(pTransport->GetPeer());
    if (m_bOneLocal)
        pTransport->SetLocalAddr(m_AddrListen);
    if (m_bUndelayed)
        pTransport->SetUndelayed();
    CM_INFO_TRACE_THIS("CCmAcceptorTcp::OnInput, addr=" << addrPeer.GetIpDisplayName() << " port=" << addrPeer.GetPort()
                                                        << " sockNew=" << fdNew
                                                        << " pTrans=" << static_cast<const void*>(pTransport.Get()));
    if (m_pHandshakes) {
        ShakeHands_i(std::move(pTransport));
    } else if (m_pSink) {
        m_pSink->OnConnectIndication(CM_OK, pTransport.Get(), this);
        pTransport->ReadEarly();
    }
    return 0;
}

// FALSE: there is no room for a further handshake, and the acceptor pauses.
BOOL CCmAcceptorTcp::MakeRoom_i() {
    if (m_Shaking.GetCount() < m_pHandshakes->GetMostInFlight())
        return TRUE;
    const CCmTimeValue tvPatience = m_Shaking.GetPatience();
    if (tvPatience > CCmTimeValue::s_tvZero) {
        Pause_i(HANDSHAKES, tvPatience);
        return FALSE;
    }
    const CCmInetAddr addr = m_Shaking.CloseMostSilent();
    TraceFailure_i(CCmFailure(CM_FAILURE_SILENCE, "the peer was silent while others waited", "shake hands with", addr));
    return TRUE;
}

void CCmAcceptorTcp::ShakeHands_i(CCmRefPtrT<CCmTransportTcp> aTransport) {
    if (!m_Shaking.Begin(std::move(aTransport), *m_pHandshakes))
        CM_WARNING_TRACE_THIS("CCmAcceptorTcp::ShakeHands_i, no memory for a handshake.");
}

// Accesses no member after the upcall, as above.
void CCmAcceptorTcp::OnShaken(CCmRefPtrT<CCmTransportTcp> aTransport, const CCmFailure& aFailure) {
    if (m_Pause == HANDSHAKES) {
        m_pReactor->CancelTimer(this);
        Resume_i();
    }
    if (aFailure)
        TraceFailure_i(aFailure);
    else if (m_pSink)
        m_pSink->OnConnectIndication(CM_OK, aTransport.Get(), this);
}

void CCmAcceptorTcp::TraceFailure_i(const CCmFailure& aFailure) {
    if (m_ShakingPace.IsDue())
        CM_WARNING_TRACE_THIS("CCmAcceptorTcp::OnHandshakeDone, the handshake has failed. why=" << aFailure.ToString());
}

void CCmAcceptorTcp::AcceptFailed_i(int aError) {
    if (IsOutOfDescriptors(aError)) {
        OutOfDescriptors_i(aError);
        return;
    }
    if (aError != EAGAIN && aError != EINTR)  // the peer has closed again, or a signal came: no failure
        CM_ERROR_TRACE_THIS("CCmAcceptorTcp::OnInput, accept() failed! err=" << aError);
}

void CCmAcceptorTcp::OutOfDescriptors_i(int aError) {
    if (m_TracePace.IsDue())
        CM_ERROR_TRACE_THIS("CCmAcceptorTcp::OnInput, accept() failed! err=" << aError);
    Pause_i(DESCRIPTORS, CCmTimeValue(0, PAUSE_USEC));
}

void CCmAcceptorTcp::Pause_i(EPause aPause, const CCmTimeValue& aTime) {
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, aTime, 1);
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        return;  // no timer: stays registered and retries at every report
    m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    m_Pause = aPause;
}

void CCmAcceptorTcp::OnTimeout(const CCmTimeValue&, void*) { Resume_i(); }

void CCmAcceptorTcp::Resume_i() {
    m_Pause = NOT;
    const CmResult rv = m_pReactor->RegisterHandler(this, ACCEPT_MASK | ONE_EACH_MASK);
    if (rv == CM_OK)
        return;
    OutOfDescriptors_i(errno);
    if (m_Pause == NOT)
        m_Retry.Arm();  // neither registered nor timed
}

void CCmAcceptorTcp::OnRetry() { Resume_i(); }

int CCmAcceptorTcp::OnClose(HANDLE aFd, long aMask) {
    CM_ERROR_TRACE_THIS("CCmAcceptorTcp::OnClose, it's impossible! aFd=" << aFd << " aMask=" << aMask);
    return 0;
}
