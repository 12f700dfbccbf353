#include "talvo/connection/connection_manager.h"

#include <new>

#include "talvo/base/name_resolver.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/connection/drain.h"
#include "talvo/connection/protocol/conn_acceptor.h"
#include "talvo/connection/protocol/conn_connector.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_linger.h"
#include "talvo/transport/connector_wrapper.h"
#include "talvo/transport/dns/dns_manager.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/thread_proxy/acceptor_thread_proxy.h"
#include "talvo/transport/thread_proxy/connector_thread_proxy.h"
#include "talvo/transport/udp/acceptor_udp.h"

namespace {

constexpr DWORD BASE_TYPE_MASK = 0x0000FFFF;
constexpr DWORD THREAD_FLAGS_MASK = 0x00030000;
constexpr DWORD PROTOCOL_MASK = 0xFFF00000;
constexpr DWORD BASE_TYPE_DETECTION = 0x8001;

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

std::atomic<CCmConnectionManager*> s_pInstance{nullptr};

CCmThreadManager& Threads() { return *CCmThreadManager::Instance(); }

BOOL HasAll(DWORD aType, DWORD aFlags) { return (aType & aFlags) == aFlags; }

const char* BaseName(DWORD aType) { return (aType & BASE_TYPE_MASK) == CM_TRANSPORT_TYPE_TCP ? "TCP" : "UDP"; }

// What the flags ask for, the first that fits; what goes with keep-alives may have them or not.
enum EProtocol { NO_PROTOCOL, RELIABLE, NO_PARTIAL_DATA, PACKAGE, LENGTH };

EProtocol ProtocolOf(DWORD aType) {
    if (HasAll(aType, CCmConnectionManager::CTYPE_PDU_RELIABLE))
        return RELIABLE;
    if (HasAll(aType, CCmConnectionManager::CTYPE_SEND_NO_PARTIAL_DATA))
        return NO_PARTIAL_DATA;
    if (HasAll(aType, CCmConnectionManager::CTYPE_PDU_PACKAGE))
        return PACKAGE;
    return HasAll(aType, CCmConnectionManager::CTYPE_PDU_LENGTH) ? LENGTH : NO_PROTOCOL;
}

// What can be said of a type without making anything. aWhere names the operation in the trace.
CmResult JudgeType(DWORD aType, const char* aWhere) {
    const DWORD dwBase = aType & BASE_TYPE_MASK;
    const EProtocol protocol = ProtocolOf(aType);
    CCmConnectorMaker maker = nullptr;
    const BOOL bBaseKnown = dwBase == BASE_TYPE_DETECTION || cm_get_connector_maker(dwBase, maker) != CM_ERROR_INVALID_ARG;
    const BOOL bStrayBits = (aType & ~(BASE_TYPE_MASK | THREAD_FLAGS_MASK | PROTOCOL_MASK)) != 0;
    if ((aType & PROTOCOL_MASK) && protocol == NO_PROTOCOL)
        return CM_ERROR_FAILURE;
    if (!bBaseKnown || bStrayBits) {
        CM_WARNING_TRACE(aWhere << ", wrong type=" << (aType & ~THREAD_FLAGS_MASK));
        return CM_ERROR_INVALID_ARG;
    }
    const BOOL bBaseMade = dwBase == CM_TRANSPORT_TYPE_TCP || dwBase == CM_TRANSPORT_TYPE_UDP;
    const BOOL bStreamOnly = protocol == LENGTH && dwBase == CM_TRANSPORT_TYPE_UDP;
    if (!bBaseMade || bStreamOnly) {
        CM_WARNING_TRACE(aWhere << ", type not implemented. type=" << (aType & ~THREAD_FLAGS_MASK));
        return CM_ERROR_NOT_IMPLEMENTED;
    }
    return CM_OK;
}

// Reliable connections have their place here and nobody who makes them.
CmResult JudgeClientType(DWORD aType) {
    const CmResult rv = JudgeType(aType, "CCmConnectionManager::CreateConnectionClient_i");
    if (rv != CM_OK || ProtocolOf(aType) != RELIABLE)
        return rv;
    CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionClient(), CTYPE_PDU_RELIABLE, BaseType = " << BaseName(aType));
    return CM_ERROR_NOT_IMPLEMENTED;
}

CmResult JudgeServerType(DWORD aType) {
    const CmResult rv = JudgeType(aType, "CCmConnectionManager::CreateConnectionServer");
    if (rv != CM_OK || ProtocolOf(aType) != RELIABLE)
        return rv;
    CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionServer(), CTYPE_PDU_RELIABLE");
    return CM_ERROR_NOT_IMPLEMENTED;
}

// The calling thread, if it can be called back.
ACmThread* CallingThread() {
    ACmThread* pThread = Threads().GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? pThread : nullptr;
}

// The connector or acceptor of the base type alone.
CmResult MakeBaseClient(DWORD aType, ICmConnector*& aConnector) {
    CCmRefPtrT<CCmConnectorWrapper> pConnector(new (std::nothrow) CCmConnectorWrapper);
    if (!pConnector)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = pConnector->Init(aType & BASE_TYPE_MASK);
    if (rv == CM_OK)
        aConnector = pConnector.Detach();
    return rv;
}

CmResult MakeBaseServer(DWORD aType, ICmAcceptor*& aAcceptor) {
    const BOOL bDatagrams = (aType & BASE_TYPE_MASK) == CM_TRANSPORT_TYPE_UDP;
    CCmRefPtrT<ICmAcceptor> pAcceptor(bDatagrams ? static_cast<ICmAcceptor*>(new (std::nothrow) CCmAcceptorUdp)
                                                 : new (std::nothrow) CCmAcceptorTcp);
    aAcceptor = pAcceptor.Detach();
    return aAcceptor ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

// A Wrapper over aLower, which it owns; aType becomes aCanonical.
template <class Wrapper, class Interface>
CmResult Wrap(DWORD& aType, DWORD aCanonical, CCmRefPtrT<Interface> aLower, Interface*& aResult) {
    const BOOL bNeedKeepAlive = HasAll(aType, CCmConnectionManager::CTYPE_PDU_KEEPALIVE);
    CCmRefPtrT<Interface> pWrapper(new (std::nothrow) Wrapper(std::move(aLower), bNeedKeepAlive));
    if (!pWrapper)
        return CM_ERROR_OUT_OF_MEMORY;
    aType = aCanonical;
    aResult = pWrapper.Detach();
    return CM_OK;
}

// For the proxies, which may come here while the manager is being destroyed: asking for its instance would make a new one.
CmResult MakeClient(DWORD aType, ICmConnector*& aConnector) {
    aConnector = nullptr;
    if (aType & PROTOCOL_MASK)
        return CCmConnectionManager::CreateCsConnectionClient(aType, aConnector);
    const CmResult rv = JudgeClientType(aType);
    return rv == CM_OK ? MakeBaseClient(aType, aConnector) : rv;
}

CmResult MakeServer(DWORD aType, ICmAcceptor*& aAcceptor) {
    aAcceptor = nullptr;
    if (aType & PROTOCOL_MASK)
        return CCmConnectionManager::CreateCsConnectionServer(aType, aAcceptor);
    const CmResult rv = JudgeServerType(aType);
    return rv == CM_OK ? MakeBaseServer(aType, aAcceptor) : rv;
}

// The thread rule: directly in the network thread, through a proxy everywhere else.
template <class Proxy, class Interface, class Factory>
CmResult CreateByThread(DWORD aType, Interface*& aResult, Factory aFactory, const char* aTraceText) {
    ACmThread* pNetwork = Threads().GetThread(CCmThreadManager::TT_NETWORK);
    ACmThread* pUser = CallingThread();
    if (!pNetwork || !pUser)
        return CM_ERROR_NULL_POINTER;
    if (pUser == pNetwork && !(aType & CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY))
        return aFactory(aType, aResult);
    CM_INFO_TRACE(aTraceText << aType);
    aResult = Proxy::Make(pUser->GetLink(), pNetwork->GetLink(), aType, aFactory).Detach();
    return aResult ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

}  // namespace

CCmConnectionManager* CCmConnectionManager::Instance() {
    if (CCmConnectionManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (s_pInstance)
        return s_pInstance;
    CCmDnsManager* pDnsManager = nullptr;
    CCmConnectionManager* pInstance = nullptr;
    talvo::WithMemory([&] {
        pDnsManager = CCmDnsManager::Instance();  // the older of the two is cleaned up last
        if (pDnsManager)
            pInstance = new CCmConnectionManager;
    });
    const CmResult rv = pInstance ? pInstance->SpawnNetworkThread_i() : CM_ERROR_OUT_OF_MEMORY;
    if (rv != CM_OK) {
        CM_ERROR_TRACE("CCmConnectionManager::Instance, SpawnNetworkThread_i() failed! rv=" << rv);
        delete pInstance;
        return nullptr;
    }
    if (!ICmNameResolver::Get())
        ICmNameResolver::Set(pDnsManager);
    return s_pInstance = pInstance;
}

void CCmConnectionManager::CleanupInstance() {
    SingletonGuard guard(GetSingletonMutex());
    if (CCmConnectionManager* pInstance = s_pInstance.exchange(nullptr))
        delete pInstance;
}

void CCmConnectionManager::CleanUp() { CleanupInstance(); }

// A network thread that the application has destroyed itself is no longer registered, and not touched.
CCmConnectionManager::~CCmConnectionManager() {
    if (!m_pThreadNetwork && CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_NETWORK))
        Threads().GetThread(CCmThreadManager::TT_NETWORK)->Linger();
    if (!m_pThreadNetwork || Threads().GetThread(CCmThreadManager::TT_NETWORK) != m_pThreadNetwork)
        return;
    m_pThreadNetwork->Stop(nullptr);
    m_pThreadNetwork->Join();
    m_pThreadNetwork->Destory(CM_OK);
}

CmResult CCmConnectionManager::SpawnNetworkThread_i() {
    if (m_pThreadNetwork)
        return CM_OK;
    if (Threads().GetNetworkThreadMode() == CCmThreadManager::NETWORK_THREAD_MAIN)
        return Threads().GetThreadReactor(CCmThreadManager::TT_MAIN) ? CM_OK : CM_ERROR_NOT_INITIALIZED;
    ICmReactor* pReactor = CCmThreadManager::CreateNetworkReactor();
    if (!pReactor)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = Threads().CreateReactorThread(CCmThreadManager::TT_NETWORK, pReactor, m_pThreadNetwork);
    // A thread whose reactor did not open is there, but has ended or will in a moment.
    return rv == CM_OK ? m_pThreadNetwork->GetLink().Call([] { return CM_OK; }) : rv;
}

CmResult CCmConnectionManager::Drain(CCmTimeValue* aTimeout, ICmDrainSink* aSink) {
    const CCmTimeValue tvTime = aTimeout ? *aTimeout : talvo::GetLingerTime();
    ACmThread* pNetwork = Threads().GetThread(CCmThreadManager::TT_NETWORK);
    ACmThread* pUser = CallingThread();
    if (!pNetwork || !pUser)
        return CM_ERROR_NULL_POINTER;
    if (!aSink) {
        if (pUser->GetThreadType() != CCmThreadManager::TT_MAIN || !pUser->GetReactor())
            return CM_ERROR_FAILURE;
        return talvo::CDrainWait(*pUser->GetReactor()).Run(pUser->GetLink(), pNetwork->GetLink(), tvTime);
    }
    using talvo::CDrain;
    const CCmRefPtrT<CDrain> pDrain(new (std::nothrow) CDrain(pNetwork->GetLink(), pUser->GetLink(), *aSink, tvTime, FALSE));
    if (!pDrain)
        return CM_ERROR_OUT_OF_MEMORY;
    if (!pDrain->Claim())
        return CM_ERROR_ALREADY_INITIALIZED;
    const CmResult rv = pDrain->Start();
    if (rv != CM_OK)
        pDrain->Withdraw();
    return rv;
}

CmResult CCmConnectionManager::CreateConnectionClient(DWORD aType, ICmConnector*& aConnector) {
    aConnector = nullptr;
    if (const CmResult rv = JudgeClientType(aType); rv != CM_OK)
        return rv;
    return CreateByThread<CCmConnectorThreadProxy>(
        aType, aConnector, MakeClient, "CCmConnectionManager::CreateConnectionClient, create CCmConnectorThreadProxy. aType=");
}

CmResult CCmConnectionManager::CreateConnectionServer(DWORD aType, ICmAcceptor*& aAcceptor) {
    aAcceptor = nullptr;
    if (const CmResult rv = JudgeServerType(aType); rv != CM_OK)
        return rv;
    return CreateByThread<CCmAcceptorThreadProxy>(
        aType, aAcceptor, MakeServer, "CCmConnectionManager::CreateConnectionServer, create CCmAcceptorThreadProxy. aType=");
}

CmResult CCmConnectionManager::CreateDetectionConnectionClient(ICmDetectionConnector*& aConnector) {
    aConnector = nullptr;
    CM_WARNING_TRACE_THIS("CCmConnectionManager::CreateDetectionConnectionClient, not implemented.");
    return CM_ERROR_NOT_IMPLEMENTED;
}

CmResult CCmConnectionManager::CreateConnectionClient_i(DWORD aType, ICmConnector*& aConnector) {
    return MakeClient(aType, aConnector);
}

CmResult CCmConnectionManager::CreateConnectionServer_i(DWORD aType, ICmAcceptor*& aAcceptor) {
    return MakeServer(aType, aAcceptor);
}

CmResult CCmConnectionManager::CreateCsConnectionClient(DWORD& aType, ICmConnector*& aConnector) {
    aConnector = nullptr;
    CCmRefPtrT<ICmConnector> pLower;
    CmResult rv = (aType & PROTOCOL_MASK) ? JudgeClientType(aType) : CM_ERROR_FAILURE;
    if (rv == CM_OK)
        rv = MakeBaseClient(aType, pLower.ParaOut());
    if (rv != CM_OK)
        return rv;
    switch (ProtocolOf(aType)) {
    case NO_PARTIAL_DATA:
        CM_INFO_TRACE(
            "CCmConnectionManager::CreateCsConnectionClient(), CTYPE_SEND_NO_PARTIAL_DATA, BaseType = " << BaseName(aType));
        return Wrap<CConnConnectorT<CPkgSender>>(aType, CTYPE_SEND_NO_PARTIAL_DATA, std::move(pLower), aConnector);
    case PACKAGE:
        CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionClient(), CTYPE_PDU_PACKAGE, bNeedKeepAlive = "
                      << HasAll(aType, CTYPE_PDU_KEEPALIVE) << ", BaseType = " << BaseName(aType));
        return Wrap<CConnConnectorT<CPkgConnClient>>(aType, CTYPE_PDU_PACKAGE, std::move(pLower), aConnector);
    case LENGTH:
        CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionClient(), CTYPE_PDU_LENGTH, BaseType = " << BaseName(aType));
        return Wrap<CConnConnectorT<CLenPkgConn>>(aType, CTYPE_PDU_LENGTH, std::move(pLower), aConnector);
    case RELIABLE:
    case NO_PROTOCOL:
        break;
    }
    return CM_ERROR_FAILURE;
}

CmResult CCmConnectionManager::CreateCsConnectionServer(DWORD& aType, ICmAcceptor*& aAcceptor) {
    aAcceptor = nullptr;
    CCmRefPtrT<ICmAcceptor> pLower;
    CmResult rv = (aType & PROTOCOL_MASK) ? JudgeServerType(aType) : CM_ERROR_FAILURE;
    if (rv == CM_OK)
        rv = MakeBaseServer(aType, pLower.ParaOut());
    if (rv != CM_OK)
        return rv;
    switch (ProtocolOf(aType)) {
    case NO_PARTIAL_DATA:
        CM_INFO_TRACE(
            "CCmConnectionManager::CreateCsConnectionServer(), CTYPE_SEND_NO_PARTIAL_DATA, BaseType = " << BaseName(aType));
        return Wrap<CConnAcceptorT<CPkgSender>>(aType, CTYPE_SEND_NO_PARTIAL_DATA, std::move(pLower), aAcceptor);
    case PACKAGE:
        CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionServer(), CTYPE_PDU_PACKAGE, bNeedKeepAlive = " << HasAll(
                          aType, CTYPE_PDU_KEEPALIVE));
        return Wrap<CConnAcceptorT<CPkgConnServer>>(aType, CTYPE_PDU_PACKAGE, std::move(pLower), aAcceptor);
    case LENGTH:
        CM_INFO_TRACE("CCmConnectionManager::CreateCsConnectionServer(), CTYPE_PDU_LENGTH, BaseType = " << BaseName(aType));
        return Wrap<CConnAcceptorT<CLenPkgConn>>(aType, CTYPE_PDU_LENGTH, std::move(pLower), aAcceptor);
    case RELIABLE:
    case NO_PROTOCOL:
        break;
    }
    return CM_ERROR_FAILURE;
}
