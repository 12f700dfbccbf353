#include "tools/listening.h"

namespace tool {

namespace {

void Announce(const CCmInetAddr& aAddr, Console& aConsole) {
    const JsonLine json = JsonLine("ready").Add("address", aAddr.GetIpDisplayName()).Add("port", aAddr.GetPort());
    if (aConsole.GetOutput() != Console::JSON)
        aConsole.Report("listening on " + aAddr.GetIpDisplayName() + ":" + std::to_string(aAddr.GetPort()), json);
    aConsole.Report("ready", json);
}

}  // namespace

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
        aConsole.Problem("cannot listen on " + aEndpoint.GetText() +
                         ": the port is in use or the address is not this machine's (" + cm_result_name(rv) + ")");
        return false;
    }
    Announce(addr, aConsole);
    return true;
}

}  // namespace tool
