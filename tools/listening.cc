#include "tools/listening.h"

namespace tool {

void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole) {
    const JsonLine json = JsonLine("ready").Add("address", aAddr.GetIpDisplayName()).Add("port", aAddr.GetPort());
    if (aConsole.GetOutput() != Console::JSON)
        aConsole.Report("listening on " + aAddr.GetIpDisplayName() + ":" + std::to_string(aAddr.GetPort()), json);
    aConsole.Report("ready", json);
}

void ComplainOfListening(const Endpoint& aEndpoint, const CCmFailure& aFailure, CmResult aReason, Console& aConsole) {
    aConsole.Problem("cannot listen on " + aEndpoint.GetText() + DescribeCause(aFailure, aReason));
}

bool StartListening(const Endpoint& aEndpoint, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor, DWORD aType) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    CmResult rv = CM_ERROR_NOT_INITIALIZED;
    if (pManager)
        rv = pManager->CreateConnectionServer(aType, aAcceptor.ParaOut());
    if (rv == CM_OK)
        rv = aAcceptor->StartListen(aSink, aEndpoint.GetInetAddr());
    CCmInetAddr addr;
    if (rv == CM_OK)
        rv = aAcceptor->GetListenAddr(addr);
    if (rv != CM_OK) {
        CCmFailure failure;
        if (ICmConnectOptions* pOptions = cm_get_connect_options(aAcceptor.Get()))
            pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        ComplainOfListening(aEndpoint, failure, rv, aConsole);
        return false;
    }
    AnnounceListening(addr, aConsole);
    return true;
}

}  // namespace tool
