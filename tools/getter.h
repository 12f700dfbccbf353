// The client of `talvo get`.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tools/application.h"
#include "tools/backoff.h"
#include "tools/console.h"
#include "tools/fetch.h"
#include "tools/progress_report.h"

namespace tool {

// Fetches one URL after the other, each in one or more attempts, and finishes the application with the status of the first
// failure, or EXIT_OK. Main thread. The arguments, the application and the console outlive it.
class Getter : private IFetchUser, private CCmTimerWrapperIDSink {
public:
    Getter(const Arguments& aArguments, Application& aApplication, Console& aConsole);

    void Start();

private:
    void OnFetched(const Failure& aFailure) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    const GetJob& GetJobNow() const { return m_Arguments.m_Get.m_vecJobs[m_stJob]; }
    void StartJob();
    Failure StartAttempt();
    void Go(Failure aFailure);
    bool TryAgain(const Failure& aFailure);
    bool MayRepeat(ECause aCause) const;
    void EndJob(const Failure& aFailure);
    void ReportResult() const;

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    RateLimit m_Rate;
    CCmTimerWrapperID m_Timer;  // the next attempt
    size_t m_stJob = 0;
    int m_nStatus = EXIT_OK;

    // Of the present job:
    std::unique_ptr<Output> m_pOutput;
    std::optional<Backoff> m_Backoff;
    uint64_t m_ullGot = 0;  // in all attempts
    int64_t m_llStarted = 0;
    std::unique_ptr<Fetch> m_pFetch;  // below the objects that it uses
};

}  // namespace tool
