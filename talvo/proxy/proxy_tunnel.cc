#include "talvo/proxy/proxy_tunnel.h"

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/connect_dialog.h"
#include "talvo/proxy/socks4_dialog.h"
#include "talvo/proxy/socks5_dialog.h"
#include "talvo/transport/bad_proxies.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/tls/connector_ssl.h"
#include "talvo/transport/tls/server_name.h"
#include "talvo/transport/tls/tls_handshake.h"

namespace talvo {

namespace {

constexpr DWORD LONGEST_TIME = 120000;  // milliseconds without a time-out of the user: about the system's for a connect
constexpr DWORD MOST_CONNECTS = 16;     // to one server, for its login
constexpr size_t LONGEST_FIELD = 255;   // user and password of SOCKS 5

std::unique_ptr<ACmConnectorInternal> MakeLower(const CCmConnectorSettings& aSettings) {
    return aSettings.m_dwType == CM_TRANSPORT_TYPE_TCP ? CCmConnectorTcp::Make(aSettings) : CCmConnectorSsl::Make(aSettings);
}

template <class Value>
void Pass(ACmConnectorInternal& aFrom, ACmConnectorInternal& aTo, DWORD aCommand) {
    Value value{};
    CmResult rv = aFrom.GetOption(aCommand, &value);
    if (rv == CM_OK)
        rv = aTo.SetOption(aCommand, &value);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
}

BOOL IsLoginTooLong(const CCmProxyServer& aServer) {
    const CCmCredentials& credentials = aServer.GetCredentials();
    const size_t stPassword = credentials.m_Password.Get().size();
    return aServer.GetKind() == CM_PROXY_SOCKS5 && credentials &&
           (credentials.m_User.Get().size() > LONGEST_FIELD || stPassword == 0 || stPassword > LONGEST_FIELD);
}

}  // namespace

CProxyTunnel::CProxyTunnel(DWORD aType, ICmReactor* aReactor, IOwner& aOwner, ACmConnectorInternal& aOptions)
    : m_dwType(aType),
      m_pReactor(aReactor),
      m_Owner(aOwner),
      m_Options(aOptions),
      m_pHandshakes(new CProxyHandshakes(*this)),
      m_pLower(MakeLower({aType, aReactor, this, m_pHandshakes})) {}

CProxyTunnel::~CProxyTunnel() { Stop(); }

BOOL CProxyTunnel::Start(CSettings aSettings, EResult& aResult) {
    Stop();
    if (!m_pLower)
        throw std::bad_alloc();
    m_Settings = std::move(aSettings);
    m_Failure = {};
    m_dwConnects = 0;
    m_pLogin.reset(new CProxyServerLogin(*this, m_Settings.m_Server));
    if (IsRefused_i(aResult))
        return TRUE;
    const BOOL bLookUp = m_Settings.m_Server.GetKind() == CM_PROXY_SOCKS4 && !m_Settings.m_Peer.m_strName.empty();
    return bLookUp ? LookUp_i(aResult) : Connect_i(aResult);
}

// Before a byte is sent.
BOOL CProxyTunnel::IsRefused_i(EResult& aResult) {
    const ECmProxyKind kind = m_Settings.m_Server.GetKind();
    if ((kind == CM_PROXY_SOCKS4 || kind == CM_PROXY_SOCKS4A) && m_Settings.m_Peer.IsIpv6()) {
        aResult = Fail_i(UNFIT, CM_ERROR_NETWORK_DNS_FAILURE,
                         CCmFailure(CM_FAILURE_NO_SUCH_NAME, "SOCKS 4 has no IPv6", "connect to", m_Settings.m_AddrPeer));
        return TRUE;
    }
    if (IsLoginTooLong(m_Settings.m_Server)) {
        aResult = Refuse_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, CM_FAILURE_LOCAL,
                           "SOCKS has no user or password of this length");
        return TRUE;
    }
    if (m_dwType != CM_TRANSPORT_TYPE_TCP && GetServerName_i().empty()) {
        aResult = Refuse_i(CM_ERROR_INVALID_ARG, CM_FAILURE_LOCAL, "there is no name for the server's certificate");
        return TRUE;
    }
    return FALSE;
}

// The name in the peer's certificate; "": there is none.
CCmString CProxyTunnel::GetServerName_i() const {
    CCmString strName;
    m_Options.GetOption(CM_OPT_CONNECT_SERVER_NAME, &strName);
    return ServerNameOf(strName, m_Settings.m_AddrPeer);
}

BOOL CProxyTunnel::LookUp_i(EResult& aResult) {
    SetStage_i(LOOKING_UP);
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = m_Lookup.Start(m_Settings.m_Peer.m_strName, pRecord);
    if (rv == CM_ERROR_WOULD_BLOCK)
        return FALSE;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK && UseAddressOf_i(*pRecord))
        return Connect_i(aResult);
    aResult = Fail_i(UNFIT, CM_ERROR_NETWORK_DNS_FAILURE,
                     CNameLookup::FailureOf(rv == CM_OK ? pRecord.Get() : nullptr, rv, m_Settings.m_AddrPeer));
    return TRUE;
}

BOOL CProxyTunnel::UseAddressOf_i(const CCmDnsRecord& aRecord) {
    if (aRecord.GetState() != CCmDnsRecord::RESOLVED)
        return FALSE;
    for (const CIpBytes& ip : aRecord.GetAddresses()) {
        if (ip.m_byFamily != 4)
            continue;
        m_Settings.m_Peer.m_strName.clear();
        m_Settings.m_Peer.m_Ip = ip;
        return TRUE;
    }
    return FALSE;
}

void CProxyTunnel::OnNameKnown(const CCmDnsRecord& aRecord) {
    m_Lookup.Cancel();
    if (UseAddressOf_i(aRecord)) {
        ConnectAgain_i();
        return;
    }
    CCmFailure failure = CNameLookup::FailureOf(&aRecord, CM_OK, m_Settings.m_AddrPeer);
    if (aRecord.GetState() == CCmDnsRecord::RESOLVED)
        failure = CCmFailure(CM_FAILURE_NO_SUCH_NAME, "the name has no IPv4 address", "look up", m_Settings.m_AddrPeer);
    Over_i(Fail_i(UNFIT, CM_ERROR_NETWORK_DNS_FAILURE, failure));
}

// Results as Start.
BOOL CProxyTunnel::Connect_i(EResult& aResult) {
    CCmInetAddr addrServer;
    if (addrServer.SetName(m_Settings.m_Server.GetHost().c_str(), m_Settings.m_Server.GetPort()) != CM_OK)
        throw std::bad_alloc();
    Begin_i();
    PassOptions_i();
    const BOOL bAny = m_Settings.m_AddrLocal == CCmInetAddr::s_InetAddrAny;
    if (m_pLower->Connect(addrServer, bAny ? nullptr : &m_Settings.m_AddrLocal) != -1)
        return FALSE;
    aResult = Unreached_i(m_pLower->GetFailure());
    return TRUE;
}

void CProxyTunnel::Begin_i() {
    ++m_dwConnects;
    m_bAgain = FALSE;
    m_Refusal = {};
    SetStage_i(GREETING);
}

// The times are this object's own, and the name for TLS is the peer's, not that of the server.
void CProxyTunnel::PassOptions_i() {
    Pass<DWORD>(m_Options, *m_pLower, CM_OPT_TRANSPORT_SNDBUF);
    Pass<DWORD>(m_Options, *m_pLower, CM_OPT_TRANSPORT_RCVBUF);
    Pass<DWORD>(m_Options, *m_pLower, CM_OPT_TRANSPORT_READ_SIZE);
    m_pLower->SetTimed(TRUE);
    if (m_dwType == CM_TRANSPORT_TYPE_TCP)
        return;
    Pass<CCmRefPtrT<CCmSslContext>>(m_Options, *m_pLower, CM_OPT_CONNECT_SSL_CONTEXT);
    Pass<CCmString>(m_Options, *m_pLower, CM_OPT_CONNECT_ALPN);
    CCmString strName = GetServerName_i();
    if (m_pLower->SetOption(CM_OPT_CONNECT_SERVER_NAME, &strName) == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
}

void CProxyTunnel::SetStage_i(EStage aStage) {
    m_pReactor->CancelTimer(this);
    m_Stage = aStage;
    DWORD dwTime = 0;
    if (aStage == GREETING) {
        dwTime = get_uint32_param("HttpProxy", "ServerTimeoutMs", SERVER_TIME);
    } else if (aStage == ASKED && !m_Settings.m_bTimed) {
        dwTime = LONGEST_TIME;
    } else if (aStage == TLS && m_dwType != CM_TRANSPORT_TYPE_TCP) {
        m_Options.GetOption(CM_OPT_CONNECT_HANDSHAKE_TIME, &dwTime);
        if (dwTime == 0 && !m_Settings.m_bTimed)
            dwTime = CTlsHandshakes::DEFAULT_TIME;
    }
    if (dwTime > 0 && Arm_i(dwTime) == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
}

CmResult CProxyTunnel::Arm_i(DWORD aMilliseconds) {
    return m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec(int64_t{aMilliseconds} * 1000), 1);
}

// From the loop.
void CProxyTunnel::ConnectAgain_i() {
    EResult result = REFUSED;
    BOOL bOver = FALSE;
    if (!WithMemory([&] { bOver = Connect_i(result); })) {
        result = Fail_i(REFUSED, CM_ERROR_OUT_OF_MEMORY, CCmFailure(ENOMEM, "connect to", m_Settings.m_AddrPeer));
        bOver = TRUE;
    }
    if (bOver)
        Over_i(result);
}

std::unique_ptr<IProxyDialog> CProxyTunnel::MakeDialog() {
    const CProxyPeer& peer = m_Settings.m_Peer;
    switch (m_Settings.m_Server.GetKind()) {
    case CM_PROXY_SOCKS4:
    case CM_PROXY_SOCKS4A:
        return std::make_unique<CSocks4Dialog>(peer, m_pLogin->GetKnownUser());
    case CM_PROXY_SOCKS5:
        return std::make_unique<CSocks5Dialog>(peer, *m_pLogin);
    default:
        return std::make_unique<CConnectDialog>(peer.GetTarget(), *m_pLogin);
    }
}

void CProxyTunnel::OnRefused(IProxyDialog::EStep aStep, const CProxyRefusal& aRefusal) {
    m_bAgain = aStep == IProxyDialog::AGAIN;
    m_Refusal = aRefusal;
}

// An answer that comes before the report of the old connection waits for it.
void CProxyTunnel::OnLogin(CmResult aResult) {
    if (m_Stage != ASKING_USER)
        return;
    if (aResult == CM_OK)
        ConnectAgain_i();
    else
        Over_i(Refuse_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, CM_FAILURE_PROTOCOL, "the user has given no credentials"));
}

int CProxyTunnel::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal*) {
    if (aReason == CM_OK) {
        auto* pTransport = static_cast<CCmTransportTcp*>(aTrpt);
        CBadProxies::Instance().Forgive(m_Settings.m_Server);
        if (WithMemory([&] { pTransport->SetRoute(m_Settings.m_Server.GetText()); }))
            Over_i(OPENED, pTransport);
        else
            Over_i(Fail_i(REFUSED, CM_ERROR_OUT_OF_MEMORY, CCmFailure(ENOMEM, "connect to", m_Settings.m_AddrPeer)));
    } else if (m_bAgain && m_dwConnects < MOST_CONNECTS && aReason != CM_ERROR_OUT_OF_MEMORY) {
        if (m_pLogin->IsWaiting())
            SetStage_i(ASKING_USER);
        else
            ConnectAgain_i();
    } else {
        Over_i(Judge_i(aReason));
    }
    return 0;
}

// The lower connector has failed.
CProxyTunnel::EResult CProxyTunnel::Judge_i(CmResult aReason) {
    const CCmFailure& failure = m_pLower->GetFailure();
    if (aReason == CM_ERROR_OUT_OF_MEMORY)
        return Fail_i(REFUSED, aReason, failure);
    if (m_Refusal.m_Reason != CM_OK)
        return Refuse_i(m_Refusal.m_Reason, CM_FAILURE_PROTOCOL, m_Refusal.m_strText.c_str());
    if (m_bAgain)
        return Refuse_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, CM_FAILURE_PROTOCOL, "the login has no end");
    switch (m_Stage) {
    case TLS:
        return Refuse_i(aReason, failure.GetCause(), failure.GetText());
    case ASKED:
        return Refuse_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, CM_FAILURE_PROTOCOL, "the proxy has closed without a reply");
    default:
        break;
    }
    if (aReason == CM_ERROR_NETWORK_TLS_CERTIFICATE)
        return Refuse_i(aReason, failure.GetCause(), failure.GetText());
    return Unreached_i(failure);
}

void CProxyTunnel::OnTimeout(const CCmTimeValue&, void*) {
    m_pLower->Close();
    if (m_Stage == GREETING)
        Over_i(Unreached_i(
            CCmFailure(CM_FAILURE_TIMEOUT, "the proxy has not answered in time", "connect to", m_Settings.m_AddrPeer)));
    else
        Over_i(Refuse_i(CM_ERROR_NETWORK_CONNECT_ERROR, CM_FAILURE_TIMEOUT, "the time for the attempt has passed"));
}

CProxyTunnel::EResult CProxyTunnel::Fail_i(EResult aResult, CmResult aReason, const CCmFailure& aFailure) {
    m_Reason = aReason;
    m_Failure = aFailure;
    CM_WARNING_TRACE_THIS("CProxyTunnel::Fail_i, server=" << m_Settings.m_Server.GetText() << " reason=" << aReason
                                                          << " why=" << m_Failure.ToString());
    return aResult;
}

CProxyTunnel::EResult CProxyTunnel::Refuse_i(CmResult aReason, ECmFailureCause aCause, const char* aText) {
    const ECmFailureCause cause = aCause == CM_FAILURE_SYSTEM ? CM_FAILURE_PROTOCOL : aCause;
    CCmString strVerb = "connect to";
    WithMemory([&] { strVerb = "connect through " + m_Settings.m_Server.GetText() + " to"; });
    return Fail_i(REFUSED, aReason, CCmFailure(cause, aText, strVerb.c_str(), m_Settings.m_AddrPeer));
}

CProxyTunnel::EResult CProxyTunnel::Unreached_i(const CCmFailure& aFailure) {
    if (aFailure.GetErrno() == ENOMEM)
        return Fail_i(REFUSED, CM_ERROR_OUT_OF_MEMORY, aFailure);
    CBadProxies::Instance().Note(m_Settings.m_Server);
    return Fail_i(UNREACHED, CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, aFailure);
}

// The last step of an attempt.
void CProxyTunnel::Over_i(EResult aResult, CCmTransportTcp* aTransport) {
    const CCmRefPtrT<CCmTransportTcp> pTransport(aTransport);
    Stop();
    m_Owner.OnTunnelDone(aResult, pTransport.Get());
}

void CProxyTunnel::Stop() {
    if (m_Stage == IDLE)
        return;
    m_Stage = IDLE;
    m_pReactor->CancelTimer(this);
    m_Lookup.Cancel();
    m_pLogin.reset();
    m_pLower->Close();
}

}  // namespace talvo
