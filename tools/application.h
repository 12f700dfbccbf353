// The frame of every subcommand: the adopted main thread, its loop, the signals that end it, the orderly shutdown.
#pragma once

#include <memory>

#include "talvo/talvo.h"

namespace tool {

// What the program ends with; by a signal it is 128 and the signal's number.
enum EExit : int { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

// Made first in a subcommand and destroyed last: everything that holds a transport stands below it.
class Application {
public:
    // First of all in main(), before any thread: the signals wait for the loop then, whatever thread they hit.
    static void BlockSignals();
    // Before anything opens a descriptor: what was closed of 0 to 2 is taken by one that fails, so that no handle of the
    // library is written to as stdout.
    static void GuardStandardDescriptors();

    explicit Application(CCmThreadManager::ENetworkThreadMode aMode);
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // Runs the main thread's loop until Finish or a signal; the exit status. EXIT_FAILED at once when the library did not
    // start.
    int Run();

    // Ends Run. The first call decides on the status; a failure gives way to a signal that waits. Main thread.
    void Finish(int aStatus);

    // For servers, behind Run: brings connections and answers to an orderly end, see CCmConnectionManager::Drain, for at most
    // LingerSeconds. Another signal ends the process at once.
    void Drain();

    // A signal that wants to end the program and waits for the loop, or 0.
    static int GetPendingSignal();

    // As many descriptors as the system grants to this process.
    static void RaiseDescriptorLimit();

private:
    class SignalHandler;

    void OnSignal(int aSignal);

    BOOL m_bStarted = FALSE;
    bool m_bDraining = false;
    int m_nStatus = -1;  // -1: not decided
    std::unique_ptr<SignalHandler> m_pSignals;
};

}  // namespace tool
