// The load of `talvo bench`.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/bench_connection.h"
#include "tools/console.h"
#include "tools/histogram.h"
#include "tools/pace_timer.h"

namespace tool {

// Opens all connections, then sends for the time of the plan, waits for the last answers, and finishes the application. Main
// thread. The arguments, the application and the console outlive it.
class BenchLoad : private BenchSink, private CCmTimerWrapperIDSink {
public:
    BenchLoad(const Arguments& aArguments, const BenchPlan& aPlan, Application& aApplication, Console& aConsole);

    void Start();
    // With m_bTakesTimes, for the receiver in the same program: a message that was due then has arrived.
    void OnArrived(int64_t aDueNs) { OnDone(aDueNs); }

    struct Results {
        const BenchPlan& m_Plan;
        // Nanoseconds. With a rate a message without an answer counts with its time until the end: a server that stalls and
        // does not come back is not flattered.
        Histogram m_Latency;
        double m_dSeconds = 0;     // from the start to the last answer within the time of the plan
        uint64_t m_ullInTime = 0;  // answers within that time
        uint64_t m_ullSent = 0;
        uint64_t m_ullMissing = 0;      // sent, without an answer
        uint64_t m_ullLate = 0;         // due, but not sent
        uint64_t m_ullReconnects = 0;   // HTTP
        uint64_t m_ullOtherStatus = 0;  // HTTP: replies whose status is not 2xx
    };
    // Prints a failure and its subject: the URL, or the address of the peer.
    void Complain(const Failure& aFailure);
    // false: it did not begin.
    bool HasResults() const { return m_Plan.m_llStart > 0 && m_Latency.GetCount() > 0; }
    Results GetResults() const;

private:
    void OnConnected() override;
    void OnDone(int64_t aDueNs) override;
    void OnHttpStatus(int aStatus) override;
    void OnReady(BenchConnection& aConnection) override;
    void OnBroken(const Failure& aFailure) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    void Send();
    void CallAt(int64_t aNanoseconds);
    uint64_t CountMissing() const;

    const Arguments& m_Arguments;
    BenchPlan m_Plan;
    Application& m_Application;
    Console& m_Console;
    PaceTimer m_Pace;
    CCmTimerWrapperID m_Timer;  // the time to connect, then the end
    std::vector<std::unique_ptr<BenchConnection>> m_vecConnections;
    size_t m_stConnected = 0;
    bool m_bBroken = false;                     // reported
    int64_t m_llNext = BenchConnection::NEVER;  // when the timer fires
    Histogram m_Latency;
    int64_t m_llLastDone = 0;
    uint64_t m_ullInTime = 0;
    uint64_t m_ullOtherStatus = 0;
    int m_nGrace = 0;
};

}  // namespace tool
