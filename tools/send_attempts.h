// The client of `talvo send`.
#pragma once

#include <memory>

#include "tools/application.h"
#include "tools/backoff.h"
#include "tools/console.h"
#include "tools/progress_report.h"
#include "tools/sender.h"

namespace tool {

// Sends in one or more attempts, and finishes the application, with EXIT_OK if all files were kept. An attempt sends the files
// that have no result yet; the receiver continues the parts. Main thread. The arguments, the application and the console
// outlive it.
class SendAttempts : private ISenderUser, private CCmTimerWrapperIDSink {
public:
    SendAttempts(const Arguments& aArguments, Application& aApplication, Console& aConsole);

    void Start();

private:
    void OnSent(const Failure& aFailure) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void StartAttempt();
    bool TryAgain(const Failure& aFailure);

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    RateLimit m_Rate;
    Backoff m_Backoff;
    SendRecord m_Record;
    CCmTimerWrapperID m_Timer;          // the next attempt
    std::unique_ptr<Sender> m_pSender;  // below the objects that it uses
};

}  // namespace tool
