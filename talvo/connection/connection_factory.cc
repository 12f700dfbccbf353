#include "talvo/connection/connection_factory.h"

#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/connection/protocol/protocols.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"
#include "talvo/transport/base_connector.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/detection_connector.h"
#include "talvo/transport/thread_proxy/acceptor_thread_proxy.h"
#include "talvo/transport/thread_proxy/connector_thread_proxy.h"
#include "talvo/transport/thread_proxy/detection_thread_proxy.h"

namespace talvo {

namespace {

CCmThreadManager& Threads() { return *CCmThreadManager::Instance(); }

// The differences between clients and servers; all other code serves both.
struct CClient {
    using Interface = ICmConnector;
    using Proxy = CCmConnectorThreadProxy;
    static constexpr const char* WHERE = "CCmConnectionManager::CreateConnectionClient_i";
    static constexpr const char* WHERE_CS = "CCmConnectionManager::CreateCsConnectionClient()";
    static constexpr const char* PROXY_LINE =
        "CCmConnectionManager::CreateConnectionClient, create CCmConnectorThreadProxy. aType=";

    static auto MakerIn(const CProtocol& aProtocol) { return aProtocol.m_MakeConnector; }
    static BOOL TracesBase(const CProtocol&) { return TRUE; }

    static CmResult JudgeBase(DWORD aBase) { return JudgeBaseConnector(aBase); }
    static CmResult MakeBase(DWORD aBase, CCmRefPtrT<ICmConnector>& aConnector) { return MakeBaseConnector(aBase, aConnector); }
};

struct CServer {
    using Interface = ICmAcceptor;
    using Proxy = CCmAcceptorThreadProxy;
    static constexpr const char* WHERE = "CCmConnectionManager::CreateConnectionServer";
    static constexpr const char* WHERE_CS = "CCmConnectionManager::CreateCsConnectionServer()";
    static constexpr const char* PROXY_LINE =
        "CCmConnectionManager::CreateConnectionServer, create CCmAcceptorThreadProxy. aType=";

    static auto MakerIn(const CProtocol& aProtocol) { return aProtocol.m_MakeAcceptor; }
    static BOOL TracesBase(const CProtocol& aProtocol) { return aProtocol.m_bServerTracesBase; }

    static CmResult JudgeBase(DWORD aBase) {
        CCmBaseTypeMakers makers;
        const CmResult rv = CConnectionType(aBase).IsRace() ? CM_OK : cm_get_base_type(aBase, makers);
        return rv == CM_OK && !makers.m_Acceptor ? CM_ERROR_NOT_IMPLEMENTED : rv;
    }
    static CmResult MakeBase(DWORD aBase, CCmRefPtrT<ICmAcceptor>& aAcceptor) {
        CCmBaseTypeMakers makers;
        if (cm_get_base_type(aBase, makers) != CM_OK || !makers.m_Acceptor)
            return CM_ERROR_NOT_IMPLEMENTED;  // the offer has just been withdrawn
        aAcceptor = makers.m_Acceptor({aBase, Threads().GetThreadReactor(CCmThreadManager::TT_NETWORK)});
        return aAcceptor ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
    }
};

template <class Side>
void TraceProtocol(const CProtocol& aProtocol, CConnectionType aType) {
    const char* pKeepAlive = aType.Has(CConnectionType::KEEPALIVE) ? ", bNeedKeepAlive = 1" : ", bNeedKeepAlive = 0";
    const BOOL bBase = Side::TracesBase(aProtocol);
    CM_INFO_TRACE(Side::WHERE_CS << ", " << aProtocol.m_pName << (aProtocol.m_bTracesKeepAlive ? pKeepAlive : "")
                                 << (bBase ? ", BaseType = " : "") << (bBase ? aType.GetBaseName() : ""));
}

// Checks a type against the tables; makes nothing.
template <class Side>
CmResult Judge(CConnectionType aType) {
    const CProtocol* pProtocol = CProtocol::Find(aType);
    if (aType.IsProtocol() && !pProtocol)
        return CM_ERROR_FAILURE;
    const CmResult rvBase = Side::JudgeBase(aType.GetBase());
    if (rvBase == CM_ERROR_INVALID_ARG || aType.HasUnknownFlags()) {
        CM_WARNING_TRACE(Side::WHERE << ", wrong type=" << aType.WithoutThreadFlags());
        return CM_ERROR_INVALID_ARG;
    }
    const BOOL bStreamOnly = pProtocol && !pProtocol->m_bOverDatagrams && aType.IsOverDatagrams();
    if (rvBase != CM_OK || bStreamOnly) {
        CM_WARNING_TRACE(Side::WHERE << ", type not implemented. type=" << aType.WithoutThreadFlags());
        return CM_ERROR_NOT_IMPLEMENTED;
    }
    if (pProtocol && !Side::MakerIn(*pProtocol)) {
        TraceProtocol<Side>(*pProtocol, aType);
        return CM_ERROR_NOT_IMPLEMENTED;
    }
    return CM_OK;
}

template <class Side>
CmResult MakeCs(DWORD& aType, typename Side::Interface*& aResult) {
    aResult = nullptr;
    const CConnectionType type(aType);
    CmResult rv = type.IsProtocol() ? Judge<Side>(type) : CM_ERROR_FAILURE;
    CCmRefPtrT<typename Side::Interface> pLower;
    if (rv == CM_OK)
        rv = Side::MakeBase(type.GetBase(), pLower);
    if (rv != CM_OK)
        return rv;
    const CProtocol& protocol = *CProtocol::Find(type);
    TraceProtocol<Side>(protocol, type);
    aResult = Side::MakerIn(protocol)(std::move(pLower), type).Detach();
    if (!aResult)
        return CM_ERROR_OUT_OF_MEMORY;
    aType = protocol.m_dwCanonical;
    return CM_OK;
}

template <class Side>
CmResult Make(DWORD aType, typename Side::Interface*& aResult) {
    const CConnectionType type(aType);
    if (type.IsProtocol())
        return MakeCs<Side>(aType, aResult);
    CCmRefPtrT<typename Side::Interface> pResult;
    CmResult rv = Judge<Side>(type);
    if (rv == CM_OK)
        rv = Side::MakeBase(type.GetBase(), pResult);
    aResult = pResult.Detach();
    return rv;
}

// The calling thread and the network thread.
struct CThreads {
    ACmThread* const m_pUser = Threads().GetThread(CCmThreadManager::TT_CURRENT);
    ACmThread* const m_pNetwork = Threads().GetThread(CCmThreadManager::TT_NETWORK);

    // FALSE: the caller could not receive callbacks, or there is no network thread.
    BOOL CanCall() const { return m_pNetwork && m_pUser && m_pUser->GetEventQueue(); }
    BOOL IsNetwork() const { return m_pUser == m_pNetwork; }
};

// The thread rule: directly in the network thread, through a proxy in every other thread.
template <class Side>
CmResult Create(DWORD aType, typename Side::Interface*& aResult) {
    aResult = nullptr;
    const CConnectionType type(aType);
    if (const CmResult rv = Judge<Side>(type); rv != CM_OK)
        return rv;
    const CThreads threads;
    if (!threads.CanCall())
        return CM_ERROR_NULL_POINTER;
    if (threads.IsNetwork() && !type.Has(CConnectionType::FORCE_THREAD_PROXY))
        return Make<Side>(aType, aResult);
    CM_INFO_TRACE(Side::PROXY_LINE << aType);
    aResult = Side::Proxy::Make(threads.m_pUser->GetLink(), threads.m_pNetwork->GetLink(), aType, Make<Side>).Detach();
    return aResult ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult JudgeConnection(DWORD aType) { return Judge<CClient>(CConnectionType(aType)); }

CmResult MakeRace(DWORD, CCmDetectionConnector*& aConnector) {
    aConnector = CCmDetectionConnector::Make(JudgeConnection, CreateClient_i).Detach();
    return aConnector ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

}  // namespace

CmResult CreateClient(DWORD aType, ICmConnector*& aConnector) { return Create<CClient>(aType, aConnector); }

CmResult CreateRace(ICmDetectionConnector*& aConnector) {
    aConnector = nullptr;
    const CThreads threads;
    if (!threads.CanCall())
        return CM_ERROR_NULL_POINTER;
    if (threads.IsNetwork()) {
        CCmDetectionConnector* pConnector = nullptr;
        const CmResult rv = MakeRace(0, pConnector);
        aConnector = pConnector;
        return rv;
    }
    CM_INFO_TRACE("CCmConnectionManager::CreateDetectionConnectionClient, create CCmDetectionConnectorThreadProxy.");
    CCmThreadLink& network = threads.m_pNetwork->GetLink();
    aConnector =
        CCmDetectionConnectorThreadProxy::Make(threads.m_pUser->GetLink(), network, JudgeConnection, MakeRace).Detach();
    return aConnector ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CreateServer(DWORD aType, ICmAcceptor*& aAcceptor) { return Create<CServer>(aType, aAcceptor); }
CmResult CreateClient_i(DWORD aType, ICmConnector*& aConnector) { return Make<CClient>(aType, aConnector); }
CmResult CreateServer_i(DWORD aType, ICmAcceptor*& aAcceptor) { return Make<CServer>(aType, aAcceptor); }
CmResult CreateCsClient(DWORD& aType, ICmConnector*& aConnector) { return MakeCs<CClient>(aType, aConnector); }
CmResult CreateCsServer(DWORD& aType, ICmAcceptor*& aAcceptor) { return MakeCs<CServer>(aType, aAcceptor); }

}  // namespace talvo
