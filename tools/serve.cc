#include "tools/application.h"
#include "tools/commands.h"
#include "tools/file_service.h"
#include "tools/listening.h"

namespace tool {

namespace {

class Server : public FileService {
public:
    Server(const ServedDirectory& aDirectory, Console& aConsole) : FileService(aDirectory), m_Console(aConsole) {}

    // aContext null: http.
    bool Start(const CCmInetAddr& aAddr, CCmRefPtrT<CCmSslContext> aContext) {
        CmResult rv = CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut(), 0);
        if (rv == CM_OK && aContext)
            rv = m_pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, &aContext);
        if (rv == CM_OK)
            rv = m_pAcceptor->StartListen(this, aAddr);
        CCmInetAddr listening;
        if (rv == CM_OK)
            rv = m_pAcceptor->GetListenAddr(listening);
        if (rv == CM_OK) {
            AnnounceListening(listening, m_Console);
            return true;
        }
        CCmFailure failure;
        if (m_pAcceptor)
            m_pAcceptor->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        ComplainOfListening(aAddr, failure, rv, m_Console);
        return false;
    }

    // Existing connections keep the old files.
    void Reload(CCmSslContext& aContext) {
        if (aContext.Reload() == CM_OK)
            m_Console.Report("reloaded the certificates", JsonLine("reloaded"));
        else
            m_Console.Problem("the certificates cannot be reloaded, and the old ones stay");
    }

    void AnnounceEnd() {
        const unsigned uAnswers = FileSender::GetCount();
        if (uAnswers > 0)
            m_Console.Report("ending; answers under way: " + std::to_string(uAnswers) + "; a second signal ends at once",
                             JsonLine("ending").Add("answers", uAnswers));
    }

private:
    Console& m_Console;
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
};

}  // namespace

// The main thread is also the network thread: it has no other work.
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
    Server server(directory, console);
    if (application.IsStarted() && !server.Start(aArguments.m_Addr, aArguments.m_pContext))
        return EXIT_FAILED;
    if (const CCmRefPtrT<CCmSslContext> pContext = aArguments.m_pContext)
        application.ReloadOnHangUp([&server, pContext] { server.Reload(*pContext); });
    const int nStatus = application.Run();
    server.AnnounceEnd();
    application.Drain();
    return nStatus;
}

}  // namespace tool
