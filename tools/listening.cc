#include "tools/listening.h"

namespace tool {

namespace {

JsonLine AddAddress(JsonLine aJson, const CCmInetAddr& aAddr) {
    aJson.Add("address", aAddr.GetIpDisplayName());
    return IsPath(aAddr) ? aJson : aJson.Add("port", aAddr.GetPort());
}

}  // namespace

void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole) {
    const JsonLine json = AddAddress(JsonLine("ready"), aAddr);
    if (aConsole.GetOutput() != Console::JSON)
        aConsole.Report("listening on " + cm_address_text(aAddr), json);
    aConsole.Report("ready", json);
}

void ComplainOfListening(const CCmInetAddr& aAddr, const CCmFailure& aFailure, CmResult aReason, Console& aConsole) {
    const Failure failure{CAUSE_LOCAL, "cannot listen on " + cm_address_text(aAddr) + DescribeCause(aFailure, aReason)};
    aConsole.Problem(failure.m_strReason, AddAddress(JsonLine::Failed(failure), aAddr));
}

CmResult Listen(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, CCmRefPtrT<ICmAcceptor>& aAcceptor,
                CCmInetAddr& aListening) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    CmResult rv = CM_ERROR_NOT_INITIALIZED;
    if (pManager)
        rv = pManager->CreateConnectionServer(aArguments.m_dwType, aAcceptor.ParaOut());
    if (rv == CM_OK && aArguments.m_Tls.m_bTls)
        rv = UseContext(aAcceptor.Get(), aArguments.m_pContext);
    if (rv == CM_OK)
        rv = aAcceptor->StartListen(aSink, aArguments.m_Addr);
    return rv == CM_OK ? aAcceptor->GetListenAddr(aListening) : rv;
}

bool StartListening(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor) {
    CCmInetAddr listening;
    const CmResult rv = Listen(aArguments, aSink, aAcceptor, listening);
    if (rv != CM_OK) {
        CCmFailure failure;
        if (ICmConnectOptions* pOptions = cm_get_connect_options(aAcceptor.Get()))
            pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        ComplainOfListening(aArguments.m_Addr, failure, rv, aConsole);
        return false;
    }
    AnnounceListening(listening, aConsole);
    return true;
}

}  // namespace tool
