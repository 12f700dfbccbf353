#include "tools/application.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "tools/console.h"

namespace tool {

namespace {

constexpr int LOOK_MS = 20;  // between two looks for a signal

// SIGPIPE comes from a stdout without a reader: no further work is useful. nohup ignores SIGHUP on purpose.
std::vector<int> GetEndingSignals() {
    std::vector<int> vecSignals = {SIGINT, SIGTERM, SIGPIPE};
    struct sigaction action {};
    if (sigaction(SIGHUP, nullptr, &action) != 0 || action.sa_handler != SIG_IGN)
        vecSignals.push_back(SIGHUP);
    return vecSignals;
}

ICmReactor* GetMainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

void Application::BlockSignals() { CCmSignalHandler::Block(GetEndingSignals()); }

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
    // A program that signals could not end does not start.
    m_bStarted = m_Signals.Open(GetMainReactor(), GetEndingSignals(), this) == CM_OK && CCmConnectionManager::Instance();
    Console::SetOnLost([this] { Finish(EXIT_FAILED); });
}

Application::~Application() {
    Console::SetOnLost(nullptr);
    m_Signals.Close();
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
    for (const int nSignal : GetEndingSignals()) {
        if (sigismember(&pending, nSignal) == 1)
            return nSignal;
    }
    return 0;
}

bool Application::WaitFor(int aFd, short aEvents) {
    pollfd entry{aFd, aEvents, 0};
    while (poll(&entry, 1, LOOK_MS) == 0) {
        if (GetPendingSignal() != 0) {
            errno = EINTR;
            return false;
        }
    }
    return true;
}

void Application::RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace tool
