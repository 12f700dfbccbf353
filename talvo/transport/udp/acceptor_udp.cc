#include "talvo/transport/udp/acceptor_udp.h"

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/config.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/transport/dns/name_lookup.h"

namespace {

CCmLiveCounter s_Live("CCmAcceptorUdp");

constexpr DWORD DEFAULT_MAX_PEERS = 65536;
constexpr DWORD DEFAULT_PEER_IDLE_SECONDS = 120;

}  // namespace

CCmAcceptorUdp::CCmAcceptorUdp()
    : m_dwMaxPeers(get_uint32_param("Udp", "MaxPeers", DEFAULT_MAX_PEERS)),
      m_tvPeerIdle(
          CCmTimeValue::FromUsec(int64_t{get_uint32_param("Udp", "PeerIdleSeconds", DEFAULT_PEER_IDLE_SECONDS)} * 1000000)) {
    ++s_Live;
}

CCmAcceptorUdp::~CCmAcceptorUdp() {
    StopListen(CM_OK);
    --s_Live;
}

CCmRefPtrT<ICmAcceptor> CCmAcceptorUdp::Make(const CCmAcceptorSettings&) { return new (std::nothrow) CCmAcceptorUdp; }

CmResult CCmAcceptorUdp::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    m_Est.EnsureSingleThread();
    if (m_pHub)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    CmResult rv = CheckListen_i();
    if (rv != CM_OK)
        return rv;
    CCmRefPtrT<talvo::CDatagramHub> pHub(new (std::nothrow) talvo::CDatagramHub(m_pReactor));
    if (!pHub)
        return CM_ERROR_OUT_OF_MEMORY;
    pHub->SetMaxPeers(m_dwMaxPeers);
    pHub->SetPeerIdleTime(m_tvPeerIdle);
    m_Failure = {};
    rv = Bind_i(pHub->GetPort().GetSocket(), aAddrListen);
    if (rv == CM_OK)
        rv = pHub->StartListen(aSink, this);
    if (rv != CM_OK) {
        pHub->StopListen();  // closes the socket now, and not at the hub's deletion
        return rv;
    }
    m_pHub = std::move(pHub);
    m_pSink = aSink;
    Listening_i();
    CM_INFO_TRACE_THIS("CCmAcceptorUdp::StartListen, addr="
                       << aAddrListen.GetIpDisplayName() << " port=" << aAddrListen.GetPort()
                       << " aSink=" << static_cast<const void*>(aSink) << " fd=" << m_pHub->GetPort().GetHandle());
    return CM_OK;
}

CmResult CCmAcceptorUdp::Bind_i(CCmSocketUdp& aSocket, const CCmInetAddr& aAddrListen) {
    if (!talvo::CNameLookup::HasAddress(aAddrListen, m_Failure))
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (aSocket.Open(aAddrListen) == 0 && aSocket.Enable(CCmIPCBase::NON_BLOCK) == 0) {
        m_Sockets.ApplyTo(aSocket);
        return CM_OK;
    }
    m_Failure = CCmFailure(errno, "bind to", aAddrListen);
    CM_ERROR_TRACE_THIS("CCmAcceptorUdp::StartListen, Open() failed! addr=" << aAddrListen.GetIpDisplayName()
                                                                            << " port=" << aAddrListen.GetPort()
                                                                            << " err=" << m_Failure.GetErrno());
    return CM_ERROR_NETWORK_SOCKET_ERROR;
}

CmResult CCmAcceptorUdp::StopListen(CmResult) {
    m_Est.EnsureSingleThread();
    LeaveThread();
    if (const CCmRefPtrT<talvo::CDatagramHub> pHub = std::move(m_pHub))
        pHub->StopListen();
    m_pSink = nullptr;
    return CM_OK;
}

CmResult CCmAcceptorUdp::GetListenAddr(CCmInetAddr& aAddr) {
    m_Est.EnsureSingleThread();
    if (!m_pHub)
        return CM_ERROR_NOT_INITIALIZED;
    return m_pHub->GetPort().GetSocket().GetLocalAddr(aAddr) == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
}

void CCmAcceptorUdp::SetMaxPeers(DWORD aMaxPeers) {
    m_dwMaxPeers = aMaxPeers;
    if (m_pHub)
        m_pHub->SetMaxPeers(aMaxPeers);
}

void CCmAcceptorUdp::SetPeerIdleTime(const CCmTimeValue& aIdle) {
    m_tvPeerIdle = aIdle;
    if (m_pHub)
        m_pHub->SetPeerIdleTime(aIdle);
}
