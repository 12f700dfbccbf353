#include "tools/connecting.h"

namespace tool {

namespace {

CmResult SetOptions(const Arguments& aArguments, ICmConnector* aConnector) {
    CCmProxyRoute route = aArguments.m_Proxy.m_Route;
    CmResult rv = CM_OK;
    if (!route.IsEmpty())
        rv = cm_get_connect_options(aConnector)->SetOption(CM_OPT_CONNECT_ROUTE, &route);
    DWORD dwMode = CM_CONNECT_PROXY_DISCOVERED;
    if (aArguments.m_Proxy.m_bSystem)
        rv = cm_get_connect_options(aConnector)->SetOption(CM_OPT_CONNECT_PROXY, &dwMode);
    if (rv != CM_OK || !aArguments.m_Tls.m_bTls)
        return rv;
    rv = UseContext(aConnector, aArguments.m_pContext);
    CCmString strName = aArguments.m_Tls.m_strServerName;
    return rv == CM_OK ? cm_get_connect_options(aConnector)->SetOption(CM_OPT_CONNECT_SERVER_NAME, &strName) : rv;
}

std::string DescribeConnection(ICmTransport& aTransport) {
    std::string strText = "connected to " + GetPeerText(aTransport);
    CCmInetAddr local;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &local) == CM_OK && !IsPath(local))
        strText += " from " + cm_address_text(local);
    CCmSslInfo info;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_SSL_INFO, &info) == CM_OK)
        strText += std::string(", ") + (info.m_dwVersion == CM_TLS_1_3 ? "TLS 1.3" : "TLS 1.2") + ", " + info.m_strCipher;
    return strText;
}

// The options are those of all its connections.
CmResult StartRace(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, CCmConnectionManager& aManager,
                   CCmRefPtrT<ICmConnector>& aConnector) {
    CCmRefPtrT<ICmDetectionConnector> pRace;
    CmResult rv = aManager.CreateDetectionConnectionClient(pRace.ParaOut());
    if (rv == CM_OK)
        rv = SetOptions(aArguments, pRace.Get());
    for (size_t i = 0; rv == CM_OK && i < aArguments.m_vecRacers.size(); ++i)
        rv = pRace->AddConnection(aArguments.m_dwType, aArguments.m_vecRacers[i]);
    if (rv == CM_OK)
        pRace->StartDetectionConnect(aSink);
    aConnector = pRace;
    return rv;
}

}  // namespace

CmResult MakeConnector(const Arguments& aArguments, CCmRefPtrT<ICmConnector>& aConnector) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    CmResult rv = CM_ERROR_NOT_INITIALIZED;
    if (pManager)
        rv = pManager->CreateConnectionClient(aArguments.m_dwType, aConnector.ParaOut());
    return rv == CM_OK ? SetOptions(aArguments, aConnector.Get()) : rv;
}

CmResult StartConnect(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, CCmRefPtrT<ICmConnector>& aConnector) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    if (!aArguments.m_vecRacers.empty() && pManager)
        return StartRace(aArguments, aSink, *pManager, aConnector);
    const CmResult rv = MakeConnector(aArguments, aConnector);
    CCmInetAddr local = aArguments.m_AddrLocal;
    if (rv == CM_OK)
        aConnector->AsycConnect(aSink, aArguments.m_Addr, nullptr, aArguments.m_strBind.empty() ? nullptr : &local);
    return rv;
}

void ReportConnection(const Arguments& aArguments, ICmTransport& aTransport, Console& aConsole) {
    Console::Detail(DescribeConnection(aTransport));
    const ProxyOptions& proxy = aArguments.m_Proxy;
    CCmString strServer;
    if ((proxy.m_Route.IsEmpty() && !proxy.m_bSystem) || aTransport.GetOption(CM_OPT_TRANSPORT_ROUTE, &strServer) != CM_OK)
        return;
    const std::string strPeer = cm_address_text(aArguments.m_Addr);
    aConsole.Report("connected to " + strPeer + " through " + strServer,
                    JsonLine("connected").Add("peer", strPeer).Add("proxy", strServer));
}

}  // namespace tool
