#include "talvo/http/server/channel_http_server_acceptor.h"

#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/recent_tick.h"
#include "talvo/base/trace.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/thread_manager.h"
#include "talvo/http/message/http_date.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_version.h"
#include "talvo/http/server/http_server_connection.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/thread_proxy/proxy_options.h"

using talvo::CHttpServerConnection;

namespace {

CCmLiveCounter s_Live("CCmChannelHttpServerAcceptor");

BOOL IsOfHandshakes(DWORD aCommand) {
    return aCommand == CM_OPT_CONNECT_HANDSHAKE_TIME || aCommand == CM_OPT_CONNECT_MAX_HANDSHAKES;
}

constexpr DWORD NO_DEADLINE = 0x40000000;  // looks

// The limit of a proxy's queue to the network. It is small, so that a slow reader's progress shows in time.
constexpr DWORD PROXY_SEND_LIMIT = 256 * 1024;

}  // namespace

CCmChannelHttpServerAcceptor::CCmChannelHttpServerAcceptor(DWORD) : m_Handshakes(CM_TRANSPORT_TYPE_TLS, FALSE) {
    PrintTails_i();
    ++s_Live;
}

CCmChannelHttpServerAcceptor::~CCmChannelHttpServerAcceptor() { --s_Live; }

CmResult CCmChannelHttpServerAcceptor::StartListen(ICmChannelServerAcceptorSink* aSink, const CCmInetAddr& aAddrListen) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!PrintTails_i())
        return CM_ERROR_OUT_OF_MEMORY;
    CmResult rv = m_LookTimer.Schedule(this, CCmTimeValue(1), 0);
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        rv = talvo::ResultWithMemory([&] { return Listen_i(aAddrListen); });
    m_Failure = rv == CM_OK ? CCmFailure() : talvo::GetConnectFailure(m_pAcceptor.Get());
    if (rv != CM_OK) {
        m_pAcceptor.Reset();
        m_LookTimer.Cancel();
        return rv;
    }
    m_pSink = aSink;
    JoinCurrentThread();
    return CM_OK;
}

CmResult CCmChannelHttpServerAcceptor::Listen_i(const CCmInetAddr& aAddrListen) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    if (!pManager)
        return CM_ERROR_NULL_POINTER;
    const DWORD dwType = m_pContext ? CM_TRANSPORT_TYPE_TLS : CM_TRANSPORT_TYPE_TCP;
    CmResult rv = pManager->CreateConnectionServer(dwType, m_pAcceptor.ParaOut());
    if (rv == CM_OK && m_pContext)
        rv = SetTls_i();
    return rv == CM_OK ? m_pAcceptor->StartListen(this, aAddrListen) : rv;
}

CmResult CCmChannelHttpServerAcceptor::SetTls_i() {
    CCmString strAlpn = talvo::HTTP_ALPN;
    talvo::COptionValues passed(CM_TRANSPORT_TYPE_TLS, FALSE);
    CmResult rv = talvo::SetConnectOption(m_pAcceptor.Get(), CM_OPT_CONNECT_SSL_CONTEXT, &m_pContext);
    if (rv == CM_OK)
        rv = talvo::SetConnectOption(m_pAcceptor.Get(), CM_OPT_CONNECT_ALPN, &strAlpn);
    return rv == CM_OK ? m_Handshakes.PassTo(m_pAcceptor.Get(), passed) : rv;
}

CmResult CCmChannelHttpServerAcceptor::StopListen(CmResult aReason) {
    if (!m_pAcceptor)
        return CM_ERROR_NOT_INITIALIZED;
    m_pAcceptor->StopListen(aReason);
    m_pAcceptor.Reset();
    m_bStopping = TRUE;
    m_dwStopDeadline = m_dwLooks + m_Settings.m_dwStopSeconds + 1;
    for (const auto& pConnection : m_Connections)
        pConnection->Stop();
    if (m_Connections.empty())
        m_StoppedTimer.Schedule(this, CCmTimeValue(0, 0), 1);
    return CM_OK;
}

void CCmChannelHttpServerAcceptor::OnDrain(ECmDrainStage aStage) {
    if (aStage == ECmDrainStage::CUT) {
        ForEach_i([](CHttpServerConnection& aConnection) { aConnection.End(CM_ERROR_NETWORK_SOCKET_CLOSE); });
    } else if (aStage == ECmDrainStage::FINISH) {
        if (m_pAcceptor)
            StopListen(CM_OK);
        m_dwStopDeadline = m_dwLooks + NO_DEADLINE;  // a drain has a limit of its own
        ForEach_i([](CHttpServerConnection& aConnection) { aConnection.Drain(); });
    }
}

// A visit may end connections. The place of an ended one goes to another, which is visited then.
template <class Visit>
void CCmChannelHttpServerAcceptor::ForEach_i(const Visit& aVisit) {
    for (size_t i = 0; i < m_Connections.size();) {
        const Connection pConnection(m_Connections[i]);
        aVisit(*pConnection);
        if (i < m_Connections.size() && m_Connections[i] == pConnection)
            ++i;
    }
}

CmResult CCmChannelHttpServerAcceptor::GetListenAddr(CCmInetAddr& aAddr) {
    return m_pAcceptor ? m_pAcceptor->GetListenAddr(aAddr) : CM_ERROR_NOT_INITIALIZED;
}

void CCmChannelHttpServerAcceptor::OnReferenceDestory() {
    DropAll_i();
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

// No upcall comes after this.
void CCmChannelHttpServerAcceptor::DropAll_i() {
    m_bStopping = FALSE;
    m_pSink = nullptr;
    m_pRefusalSink = nullptr;
    m_LookTimer.Cancel();
    m_StoppedTimer.Cancel();
    m_pAcceptor.Reset();
    while (!m_Connections.empty())
        Connection(m_Connections.back())->Drop();
}

void CCmChannelHttpServerAcceptor::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason == CM_OK && !talvo::WithMemory([=, this] { Serve(aTrpt); }))
        CM_WARNING_TRACE_THIS("CCmChannelHttpServerAcceptor::Serve, no memory for a connection.");
}

void CCmChannelHttpServerAcceptor::Serve(ICmTransport* aTransport) {
    if (m_Connections.size() >= m_Settings.m_dwMaxConnections) {
        CM_WARNING_TRACE_THIS("CCmChannelHttpServerAcceptor::Serve, too many connections. count=" << m_Connections.size());
        return;
    }
    const Connection pConnection(new (std::nothrow) CHttpServerConnection(*this, aTransport));
    if (!pConnection)
        return;
    if (!CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_NETWORK)) {
        DWORD dwLimit = PROXY_SEND_LIMIT;
        aTransport->SetOption(CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, &dwLimit);
        BOOL bAtOnce = TRUE;
        aTransport->SetOption(talvo::OPT_PROXY_LOSS_AT_ONCE, &bAtOnce);
    }
    JoinCurrentThread();
    pConnection->m_stPlace = m_Connections.size();
    m_Connections.push_back(pConnection);
    if (pConnection->Open() != CM_OK)
        pConnection->Drop();
}

void CCmChannelHttpServerAcceptor::Remove(CHttpServerConnection& aConnection) {
    const size_t stPlace = aConnection.m_stPlace;
    std::swap(m_Connections[stPlace], m_Connections.back());
    m_Connections[stPlace]->m_stPlace = stPlace;
    m_Connections.pop_back();
    if (m_bStopping && m_Connections.empty())
        m_StoppedTimer.Schedule(this, CCmTimeValue(0, 0), 1);
}

void CCmChannelHttpServerAcceptor::OnRequest(ICmChannelHttpServer& aChannel) {
    if (m_pSink)
        m_pSink->OnRequest(&aChannel, this);
}

void CCmChannelHttpServerAcceptor::OnRequestLost(CmResult aReason, ICmChannelHttpServer& aChannel) {
    if (m_pSink)
        m_pSink->OnRequestLost(aReason, &aChannel, this);
}

void CCmChannelHttpServerAcceptor::OnClientEnd(ICmChannelHttpServer& aChannel) {
    if (m_pSink)
        m_pSink->OnClientEnd(&aChannel, this);
}

void CCmChannelHttpServerAcceptor::OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer,
                                             DWORD aBytes) {
    if (m_pRefusalSink)
        m_pRefusalSink->OnRefused(aStatus, aRequest, aPeer, aBytes);
}

void CCmChannelHttpServerAcceptor::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_LookTimer)
        Look_i();
    else
        Stopped_i();
}

void CCmChannelHttpServerAcceptor::Look_i() {
    ++m_dwLooks;
    PrintTails_i();
    const BOOL bAll = m_bStopping && static_cast<int32_t>(m_dwLooks - m_dwStopDeadline) >= 0;
    ForEach_i([=](CHttpServerConnection& aConnection) {
        if (bAll)
            aConnection.End(CM_ERROR_NETWORK_SOCKET_CLOSE);
        else if (aConnection.IsLate())
            aConnection.OnLate();
    });
    if (m_bStopping && m_Connections.empty())
        Stopped_i();
}

// Printed again in each second: an old date would be earlier than a time of change that is sent beside it.
std::string_view CCmChannelHttpServerAcceptor::GetTail(BOOL aKeepAlive) {
    const int64_t llSecond = talvo::GetRecentWallSecond();
    if (std::exchange(m_llTailSecond, llSecond) != llSecond)
        PrintTails_i();
    return aKeepAlive ? m_strTailKeep : m_strTailClose;
}

// FALSE: memory ran out, and the old ones stay.
BOOL CCmChannelHttpServerAcceptor::PrintTails_i() {
    return talvo::WithMemory([this] {
        const CCmString strDate = "Date: " + cm_format_http_date(talvo::GetRecentWallSecond());
        CCmString strKeep = strDate + "\r\nConnection: keep-alive\r\n\r\n";
        m_strTailClose = strDate + "\r\nConnection: close\r\n\r\n";
        m_strTailKeep.swap(strKeep);
    });
}

void CCmChannelHttpServerAcceptor::Stopped_i() {
    m_bStopping = FALSE;
    m_LookTimer.Cancel();
    m_StoppedTimer.Cancel();
    if (ICmChannelServerAcceptorSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnStopped(this);
}

DWORD* CCmChannelHttpServerAcceptor::GetNumber_i(DWORD aCommand) {
    switch (aCommand) {
    case CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS:
        return &m_Settings.m_dwMaxConnections;
    case CM_OPT_CHANNEL_SERVER_MAX_LINE:
        return &m_Settings.m_Limits.m_dwMaxLine;
    case CM_OPT_CHANNEL_SERVER_MAX_LINES:
        return &m_Settings.m_Limits.m_dwMaxHeaders;
    case CM_OPT_CHANNEL_SERVER_MAX_HEAD:
        return &m_Settings.m_dwMaxHead;
    case CM_OPT_CHANNEL_SERVER_HEAD_SECONDS:
        return &m_Settings.m_dwHeadSeconds;
    case CM_OPT_CHANNEL_SERVER_IDLE_SECONDS:
        return &m_Settings.m_dwIdleSeconds;
    case CM_OPT_CHANNEL_SERVER_STOP_SECONDS:
        return &m_Settings.m_dwStopSeconds;
    default:
        return nullptr;
    }
}

CmResult CCmChannelHttpServerAcceptor::SetOption(DWORD aCommand, void* aArg) {
    if (aArg && aCommand == CM_OPT_CHANNEL_SERVER_SSL_CONTEXT)
        return SetContext_i(*static_cast<CCmRefPtrT<CCmSslContext>*>(aArg));
    if (aArg && aCommand == CM_OPT_CHANNEL_SERVER_REFUSAL_SINK) {
        m_pRefusalSink = *static_cast<ICmHttpRefusalSink**>(aArg);
        return CM_OK;
    }
    if (aArg && IsOfHandshakes(aCommand))
        return m_Handshakes.Set(aCommand, aArg);
    DWORD* pNumber = GetNumber_i(aCommand);
    const BOOL bBody = aCommand == CM_OPT_CHANNEL_SERVER_MAX_BODY;
    const BOOL bSeconds = aCommand >= CM_OPT_CHANNEL_SERVER_HEAD_SECONDS;
    const auto isValid = [=](DWORD aNumber) { return aNumber > 0 && (!bSeconds || aNumber <= NO_DEADLINE); };
    if (!aArg || (!pNumber && !bBody) || (pNumber && !isValid(*static_cast<DWORD*>(aArg)))) {
        CM_WARNING_TRACE_THIS("CCmChannelHttpServerAcceptor::SetOption, wrong aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
    if (bBody)
        m_Settings.m_Limits.m_ullMaxBody = *static_cast<uint64_t*>(aArg);
    else
        *pNumber = *static_cast<DWORD*>(aArg);
    return CM_OK;
}

CmResult CCmChannelHttpServerAcceptor::SetContext_i(const CCmRefPtrT<CCmSslContext>& aContext) {
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    m_pContext = aContext;
    return CM_OK;
}

CmResult CCmChannelHttpServerAcceptor::GetOption(DWORD aCommand, void* aArg) {
    const DWORD* pNumber = GetNumber_i(aCommand);
    const BOOL bBody = aCommand == CM_OPT_CHANNEL_SERVER_MAX_BODY;
    if (aArg && aCommand == CM_OPT_CONNECT_FAILURE) {
        *static_cast<CCmFailure*>(aArg) = m_Failure;
        return CM_OK;
    }
    if (aArg && aCommand == CM_OPT_CHANNEL_SERVER_SSL_CONTEXT) {
        *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg) = m_pContext;
        return CM_OK;
    }
    if (aArg && aCommand == CM_OPT_CHANNEL_SERVER_REFUSAL_SINK) {
        *static_cast<ICmHttpRefusalSink**>(aArg) = m_pRefusalSink;
        return CM_OK;
    }
    if (aArg && IsOfHandshakes(aCommand))
        return m_Handshakes.Get(aCommand, aArg);
    if (!aArg || (!pNumber && !bBody))
        return CM_ERROR_INVALID_ARG;
    if (bBody)
        *static_cast<uint64_t*>(aArg) = m_Settings.m_Limits.m_ullMaxBody;
    else
        *static_cast<DWORD*>(aArg) = *pNumber;
    return CM_OK;
}
