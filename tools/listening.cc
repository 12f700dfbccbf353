#include "tools/listening.h"

namespace tool {

void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole) {
    const JsonLine json = JsonLine("ready").Add("address", aAddr.GetIpDisplayName()).Add("port", aAddr.GetPort());
    if (aConsole.GetOutput() != Console::JSON)
        aConsole.Report("listening on " + aAddr.GetIpDisplayName() + ":" + std::to_string(aAddr.GetPort()), json);
    aConsole.Report("ready", json);
}

void ComplainOfListening(const Endpoint& aEndpoint, CmResult aReason, Console& aConsole) {
    aConsole.Problem("cannot listen on " + aEndpoint.GetText() + ": the port is in use or the address is not this machine's (" +
                     cm_result_name(aReason) + ")");
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
        ComplainOfListening(aEndpoint, rv, aConsole);
        return false;
    }
    AnnounceListening(addr, aConsole);
    return true;
}

}  // namespace tool
