#include "tools/application.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tools/console.h"

namespace tool {

namespace {

// SIGPIPE comes from a stdout without a reader: no further work is useful.
constexpr int ENDING_SIGNALS[] = {SIGINT, SIGTERM, SIGPIPE, SIGHUP};

sigset_t GetEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : ENDING_SIGNALS)
        sigaddset(&signals, nSignal);
    // nohup ignores it on purpose.
    struct sigaction action {};
    if (sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
        sigdelset(&signals, SIGHUP);
    return signals;
}

ICmReactor* GetMainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

// Handles signals through a handle that becomes readable.
class Application::SignalHandler : public ACmEventHandler {
public:
    explicit SignalHandler(Application& aApplication) : m_Application(aApplication) {
        const sigset_t signals = GetEndingSignals();
        m_nFd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        ICmReactor* pReactor = GetMainReactor();
        m_bRegistered = pReactor && pReactor->RegisterHandler(this, READ_MASK) == CM_OK;
    }
    ~SignalHandler() override {
        if (m_bRegistered)
            GetMainReactor()->RemoveHandler(this, ALL_EVENTS_MASK);
        close(m_nFd);
    }

    HANDLE GetHandle() const override { return m_nFd; }
    bool IsRegistered() const { return m_bRegistered; }

    int OnInput(HANDLE) override {
        signalfd_siginfo info{};
        if (read(m_nFd, &info, sizeof(info)) == sizeof(info))
            m_Application.OnSignal(static_cast<int>(info.ssi_signo));
        return 0;
    }

    int OnClose(HANDLE, long) override { return 0; }

private:
    Application& m_Application;
    int m_nFd;
    bool m_bRegistered;
};

void Application::BlockSignals() {
    const sigset_t signals = GetEndingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void Application::GuardStandardDescriptors() {
    for (int nFd = STDIN_FILENO; nFd <= STDERR_FILENO; ++nFd) {
        if (fcntl(nFd, F_GETFD) == -1)
            open("/dev/null", nFd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // the lowest free descriptor, which is nFd
    }
}

Application::Application(CCmThreadManager::ENetworkThreadMode aMode) {
    CCmThreadManager* pManager = CCmThreadManager::Instance();
    pManager->SetNetworkThreadMode(aMode);
    if (pManager->InitMainThread(0, nullptr) != CM_OK)
        return;
    m_pSignals = std::make_unique<SignalHandler>(*this);
    // A program that signals could not end does not start.
    m_bStarted = m_pSignals->IsRegistered() && CCmConnectionManager::Instance();
}

Application::~Application() {
    m_pSignals.reset();
    CCmThreadManager* pManager = CCmThreadManager::Instance();
    pManager->StopAllThreads(nullptr);
    pManager->JoinAllThreads();
    CCmConnectionManager::CleanupInstance();
    if (ACmThread* pMain = pManager->GetThread(CCmThreadManager::TT_MAIN))
        pMain->Destory(CM_OK);
}

int Application::Run() {
    if (!m_bStarted)
        Console::Complain("cannot start the library: no descriptor, thread or memory is left");
    else if (m_nStatus == -1)
        GetMainReactor()->RunEventLoop();
    return m_nStatus == -1 ? EXIT_FAILED : m_nStatus;
}

void Application::Finish(int aStatus) {
    if (m_nStatus != -1)
        return;
    const int nSignal = aStatus == EXIT_OK ? 0 : GetPendingSignal();
    m_nStatus = nSignal == 0 ? aStatus : 128 + nSignal;
    if (m_bStarted)
        GetMainReactor()->StopEventLoop();
}

void Application::Drain() {
    m_bDraining = true;
    if (m_bStarted)
        CCmConnectionManager::Instance()->Drain(nullptr);
}

void Application::OnSignal(int aSignal) {
    if (m_bDraining)
        std::_Exit(128 + aSignal);  // the system closes the rest
    if (aSignal == SIGHUP && m_Reload)
        return m_Reload();
    Finish(128 + aSignal);
}

int Application::GetPendingSignal() {
    sigset_t pending;
    sigpending(&pending);
    for (const int nSignal : ENDING_SIGNALS) {
        if (sigismember(&pending, nSignal) == 1)
            return nSignal;
    }
    return 0;
}

void Application::RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace tool
