// The common part of every subcommand: the adopted main thread, its loop, the signals that end it, the orderly shutdown.
#pragma once

#include <functional>

#include "talvo/talvo.h"

namespace tool {

// The exit status of the program; after a signal it is 128 plus the signal's number.
enum EExit : int { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

// The first object of a subcommand and the last to be destroyed: all holders of a transport are declared below it.
class Application : private ICmSignalSink {
public:
    // Call it first in main(), before any thread starts: the loop then handles the signals of all threads.
    static void BlockSignals();
    // Call it before any descriptor is opened. If descriptor 0, 1 or 2 is closed, it is filled with one whose reads and writes
    // fail, so that no handle of the library is used as stdout.
    static void GuardStandardDescriptors();

    explicit Application(CCmThreadManager::ENetworkThreadMode aMode);
    ~Application() override;
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // false: Run reports that and returns at once.
    bool IsStarted() const { return m_bStarted != FALSE; }

    // From now on SIGHUP calls aReload instead of ending the program. Main thread.
    void ReloadOnHangUp(std::function<void()> aReload) { m_Reload = std::move(aReload); }

    // Runs the main thread's loop until Finish or a signal. Returns the exit status; EXIT_FAILED at once if the library did not
    // start.
    int Run();

    // Ends Run. The first call sets the status, but a pending signal overrides a failure. Main thread.
    void Finish(int aStatus);

    // For servers, after Run: ends connections and answers in order, see CCmConnectionManager::Drain, for at most
    // LingerSeconds. Another signal ends the process at once.
    void Drain();

    // A pending signal that ends the program, or 0.
    static int GetPendingSignal();

    // Waits until aFd has one of the events of poll(). false: a signal that ends the program is pending; errno is EINTR.
    static bool WaitFor(int aFd, short aEvents);

    // Raises the limit of descriptors to the most that the system allows this process.
    static void RaiseDescriptorLimit();

private:
    void OnSignal(int aSignal) override;

    BOOL m_bStarted = FALSE;
    bool m_bDraining = false;
    int m_nStatus = -1;              // -1: not set
    std::function<void()> m_Reload;  // may be empty
    CCmSignalHandler m_Signals;
};

}  // namespace tool
