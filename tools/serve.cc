#include <memory>

#include "tools/application.h"
#include "tools/body_sender.h"
#include "tools/commands.h"
#include "tools/file_service.h"
#include "tools/listening.h"

namespace tool {

namespace {

class Server : public FileService {
public:
    Server(const ServedDirectory& aDirectory, const ServeOptions& aOptions, AccessLog* aLog, Console& aConsole)
        : FileService(aDirectory, aOptions, aLog), m_pLog(aLog), m_Console(aConsole) {}

    // aContext null: http.
    bool Start(const CCmInetAddr& aAddr, CCmRefPtrT<CCmSslContext> aContext) {
        CmResult rv = CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut(), 0);
        if (rv == CM_OK && aContext)
            rv = m_pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, &aContext);
        ICmHttpRefusalSink* pRefusals = this;
        if (rv == CM_OK)
            rv = m_pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_REFUSAL_SINK, &pRefusals);
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

    // Existing connections keep the old certificates. A program that moves the log away signals that a new one is due.
    void Reload(CCmSslContext* aContext) {
        const std::string strLog = m_pLog ? m_pLog->Open() : "";
        if (!strLog.empty())
            m_Console.Problem({CAUSE_LOCAL, strLog}, "name", m_pLog->GetPath());
        if (aContext && aContext->Reload() == CM_OK)
            m_Console.Report("reloaded the certificates", JsonLine("reloaded"));
        else if (aContext)
            m_Console.Problem({CAUSE_LOCAL, "the certificates cannot be reloaded, and the old ones stay"});
    }

    void AnnounceEnd() {
        const unsigned uAnswers = BodySender::GetCount();
        if (uAnswers > 0)
            m_Console.Report("ending; answers under way: " + std::to_string(uAnswers) + "; a second signal ends at once",
                             JsonLine("ending").Add("answers", uAnswers));
    }

private:
    AccessLog* const m_pLog;
    Console& m_Console;
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
};

// Null: none.
std::unique_ptr<AccessLog> MakeLog(const ServeOptions& aOptions, Console& aConsole) {
    if (aOptions.m_strAccessLog.empty())
        return nullptr;
    const std::string& strFormat = aOptions.m_strAccessLogFormat;
    const bool bJson = strFormat.empty() ? aConsole.GetOutput() == Console::JSON : strFormat == "json";
    return std::make_unique<AccessLog>(aOptions.m_strAccessLog, bJson ? AccessLog::JSON : AccessLog::COMMON, aConsole);
}

}  // namespace

// The main thread is also the network thread: it has no other work.
int RunServe(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    ServedDirectory directory;
    const std::unique_ptr<AccessLog> pLog = MakeLog(aArguments.m_Serve, console);
    const std::string strDirectory = directory.Open(aArguments.m_strDirectory);
    const std::string strLog = strDirectory.empty() && pLog ? pLog->Open() : "";
    if (!strDirectory.empty())
        console.Problem({CAUSE_LOCAL, strDirectory}, "name", aArguments.m_strDirectory);
    if (!strLog.empty())
        console.Problem({CAUSE_LOCAL, strLog}, "name", pLog->GetPath());
    if (!strDirectory.empty() || !strLog.empty())
        return EXIT_FAILED;
    Application::RaiseDescriptorLimit();
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    Server server(directory, aArguments.m_Serve, pLog.get(), console);
    if (application.IsStarted() && !server.Start(aArguments.m_Addr, aArguments.m_pContext))
        return EXIT_FAILED;
    const CCmRefPtrT<CCmSslContext> pContext = aArguments.m_pContext;
    if (pContext || pLog)
        application.ReloadOnHangUp([&server, pContext] { server.Reload(pContext.Get()); });
    const int nStatus = application.Run();
    server.AnnounceEnd();
    application.Drain();
    return nStatus;
}

}  // namespace tool
