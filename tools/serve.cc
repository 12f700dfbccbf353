#include "tools/application.h"
#include "tools/commands.h"
#include "tools/file_service.h"
#include "tools/listening.h"

namespace tool {

namespace {

// A signal ends the program when the answers that have begun are through.
class Server : public FileService {
public:
    Server(const ServedDirectory& aDirectory, Application& aApplication, Console& aConsole)
        : FileService(aDirectory), m_Application(aApplication), m_Console(aConsole) {}

    bool Start(const Endpoint& aEndpoint) {
        CmResult rv = CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut(), 0);
        if (rv == CM_OK)
            rv = m_pAcceptor->StartListen(this, aEndpoint.GetInetAddr());
        CCmInetAddr addr;
        if (rv == CM_OK)
            rv = m_pAcceptor->GetListenAddr(addr);
        if (rv == CM_OK) {
            AnnounceListening(addr, m_Console);
            m_Application.EndInOrder([this](int aStatus) { Stop(aStatus); });
            return true;
        }
        CCmFailure failure;
        if (m_pAcceptor)
            m_pAcceptor->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        ComplainOfListening(aEndpoint, failure, rv, m_Console);
        return false;
    }

private:
    void Stop(int aStatus) {
        m_nStatus = aStatus;
        m_pAcceptor->StopListen(CM_OK);
        const DWORD dwLeft = m_pAcceptor->GetConnections();
        if (dwLeft > 0)
            m_Console.Report("ending; answers under way: " + std::to_string(dwLeft) + "; a second signal ends at once",
                             JsonLine("ending").Add("answers", dwLeft));
    }
    void OnStopped(ICmChannelServerAcceptor*) override { m_Application.Finish(m_nStatus); }

    Application& m_Application;
    Console& m_Console;
    int m_nStatus = EXIT_OK;
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
};

}  // namespace

// The main thread serves as network thread here: nothing else happens in it.
int RunServe(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    ServedDirectory directory;
    const std::string strProblem = directory.Open(aArguments.m_strDirectory);
    if (!strProblem.empty()) {
        console.Problem(strProblem);
        return EXIT_FAILED;
    }
    Application::RaiseDescriptorLimit();
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    Server server(directory, application, console);
    if (!server.Start(aArguments.m_Endpoint))
        return EXIT_FAILED;
    const int nStatus = application.Run();
    // A second signal leaves answers unfinished: their senders let go of themselves when they are cut off.
    CCmTimeValue tvNone;
    CCmConnectionManager::Instance()->Drain(&tvNone);
    return nStatus;
}

}  // namespace tool
