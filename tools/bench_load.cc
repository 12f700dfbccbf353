#include "tools/bench_load.h"

#include <algorithm>
#include <utility>

#include "tools/connecting.h"
#include "tools/memory.h"

namespace tool {

namespace {

constexpr int GRACE_TURNS = 20;      // in which the last answers may come
constexpr long GRACE_USEC = 100000;  // one of them

}  // namespace

BenchLoad::BenchLoad(const Arguments& aArguments, const BenchPlan& aPlan, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Plan(aPlan), m_Application(aApplication), m_Console(aConsole), m_Pace([this] { Send(); }) {
    BenchSink& sink = *this;
    for (size_t i = 0; i < aPlan.m_stConnections; ++i)
        m_vecConnections.push_back(std::make_unique<BenchConnection>(m_Arguments, m_Plan, i, sink));
}

void BenchLoad::Start() {
    if (!m_Pace.IsUsable())
        return OnBroken({CAUSE_LOCAL, "the system has no timer"});
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CONNECT_SECONDS), 1));
    for (const auto& pConnection : m_vecConnections)
        pConnection->Connect();
}

void BenchLoad::OnConnected() {
    if (++m_stConnected < m_vecConnections.size())
        return;
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(static_cast<long>(m_Plan.m_llSeconds)), 1));
    m_Plan.m_llStart = GetNanoseconds();
    CallAt(m_Plan.m_llStart);
}

// A connection whose next message is due sends it in the turn of its answer, without the timer.
void BenchLoad::OnReady(BenchConnection& aConnection) {
    if (m_Plan.m_llStart == 0)
        return;
    const int64_t llNext = aConnection.Send(GetNanoseconds());
    if (llNext < m_llNext)
        CallAt(llNext);
}

void BenchLoad::Send() {
    const int64_t llNow = GetNanoseconds();
    int64_t llNext = BenchConnection::NEVER;
    for (const auto& pConnection : m_vecConnections)
        llNext = std::min(llNext, pConnection->Send(llNow));
    m_llNext = BenchConnection::NEVER;
    if (llNext != BenchConnection::NEVER)
        CallAt(llNext);
}

void BenchLoad::CallAt(int64_t aNanoseconds) {
    m_llNext = aNanoseconds;
    m_Pace.CallAt(aNanoseconds);
}

void BenchLoad::OnDone(int64_t aDueNs) {
    m_llLastDone = GetNanoseconds();
    m_Latency.Record(static_cast<uint64_t>(std::max<int64_t>(m_llLastDone - aDueNs, 0)));
    m_ullInTime += m_llLastDone <= m_Plan.GetEnd();
}

void BenchLoad::OnHttpStatus(int aStatus) { m_ullOtherStatus += aStatus / 100 != 2; }

// The other connections often break for the same cause in the same turn.
void BenchLoad::OnBroken(const Failure& aFailure) {
    if (std::exchange(m_bBroken, true))
        return;
    Complain(aFailure);
    m_Application.Finish(EXIT_FAILED);
}

void BenchLoad::Complain(const Failure& aFailure) {
    if (m_Plan.m_Kind == BenchPlan::HTTP)
        m_Console.Problem(aFailure, "url", m_Arguments.m_strTarget);
    else
        m_Console.Problem(aFailure, "peer", cm_address_text(m_Arguments.m_Addr));
}

void BenchLoad::OnTimer(CCmTimerWrapperID*) {
    if (m_Plan.m_llStart == 0)
        return OnBroken({CAUSE_TIMEOUT, "cannot connect to " + cm_address_text(m_Arguments.m_Addr) + ": " +
                                            std::to_string(m_stConnected) + " of " + std::to_string(m_vecConnections.size()) +
                                            " connections within " + std::to_string(CONNECT_SECONDS) + " s"});
    if (CountMissing() > 0 && m_nGrace++ < GRACE_TURNS)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue(0, GRACE_USEC), 1));
    else
        m_Application.Finish(EXIT_OK);
}

uint64_t BenchLoad::CountMissing() const {
    uint64_t ullSent = 0;
    for (const auto& pConnection : m_vecConnections)
        ullSent += pConnection->GetSent();
    return ullSent - std::min(ullSent, m_Latency.GetCount());
}

BenchLoad::Results BenchLoad::GetResults() const {
    Results results{m_Plan, m_Latency};
    const int64_t llNow = GetNanoseconds();
    results.m_dSeconds = static_cast<double>(std::min(llNow, m_Plan.GetEnd()) - m_Plan.m_llStart) / 1e9;
    results.m_ullInTime = m_ullInTime;
    results.m_ullMissing = CountMissing();
    results.m_ullOtherStatus = m_ullOtherStatus;
    for (const auto& pConnection : m_vecConnections) {
        results.m_ullSent += pConnection->GetSent();
        results.m_ullLate += pConnection->GetLate(llNow);
        results.m_ullReconnects += pConnection->GetReconnects();
        pConnection->RecordOpen(llNow, results.m_Latency);
    }
    return results;
}

}  // namespace tool
