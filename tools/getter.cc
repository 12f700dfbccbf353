#include "tools/getter.h"

#include <algorithm>

#include "tools/partial_file.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr const char* IDEMPOTENT[] = {"", "GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"};

std::unique_ptr<Output> MakeOutput(const OutputTarget& aTarget) {
    if (aTarget.m_Kind == OutputTarget::REGULAR)
        return std::make_unique<PartialFile>(aTarget.m_strPath);
    return std::make_unique<DirectOutput>(aTarget.m_strPath);
}

}  // namespace

Getter::Getter(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments),
      m_Application(aApplication),
      m_Console(aConsole),
      m_Progress(aConsole),
      m_Rate(aArguments.m_Transfer.m_ullRate) {}

void Getter::Start() {
    const auto& jobs = m_Arguments.m_Get.m_vecJobs;
    const bool bStdout =
        std::any_of(jobs.begin(), jobs.end(), [](const GetJob& aJob) { return aJob.m_Target.m_Kind == OutputTarget::STDOUT; });
    if (!bStdout)
        m_Progress.Start();
    StartJob();
}

void Getter::StartJob() {
    m_pFetch.reset();
    m_pOutput = MakeOutput(GetJobNow().m_Target);
    m_Backoff.emplace(m_Arguments.m_Transfer.m_dwRetries);
    m_ullGot = 0;
    m_llStarted = CCmClock::GetTimeOfDayUsec();
    const std::string strProblem = m_Arguments.m_Get.m_bContinue ? m_pOutput->LookForBeginning() : "";
    Go(strProblem.empty() ? StartAttempt() : Failure{CAUSE_LOCAL, strProblem});
}

Failure Getter::StartAttempt() {
    m_pFetch.reset(new Fetch(m_Arguments, GetJobNow(), *m_pOutput, m_Progress.GetMeter(), m_Rate, *this));
    return m_pFetch->Start();
}

void Getter::Go(Failure aFailure) {
    if (aFailure)
        EndJob(aFailure);
}

void Getter::OnFetched(const Failure& aFailure) {
    m_ullGot += m_pFetch->GetBytes();
    if (!aFailure || !TryAgain(aFailure))
        EndJob(aFailure);
}

// TRUE: another attempt follows.
bool Getter::TryAgain(const Failure& aFailure) {
    long lWish = 0;
    long lSeconds = 0;
    const bool bBusy = aFailure.m_Cause == CAUSE_REFUSED && m_pFetch->IsBusy(lWish);
    if (!MayRepeat(bBusy ? CAUSE_BROKEN : aFailure.m_Cause) || Application::GetPendingSignal() != 0)
        return false;
    if (m_pFetch->GetBytes() > 0)
        m_Backoff->OnProgress();
    if (!m_Backoff->Next(lSeconds))
        return false;
    lSeconds = std::max(lSeconds, lWish);
    m_Console.Problem(
        GetJobNow().m_strUrl + ": " + aFailure.m_strReason + "; next attempt in " + std::to_string(lSeconds) + " s",
        JsonLine("retry")
            .Add("reason", aFailure.m_strReason)
            .Add("seconds", lSeconds)
            .Add("left", m_Backoff->GetLeft())
            .Add("url", GetJobNow().m_strUrl));
    return m_Timer.Schedule(this, CCmTimeValue(lSeconds), 1) == CM_OK;
}

// The server may have acted on a request that is not idempotent, unless there was no connection.
bool Getter::MayRepeat(ECause aCause) const {
    const bool bUnsent = aCause == CAUSE_NAME || aCause == CAUSE_CONNECT;
    const auto* pFound = std::find(std::begin(IDEMPOTENT), std::end(IDEMPOTENT), m_Arguments.m_Get.m_strMethod);
    const bool bGoesOn = m_pOutput->MayBegin() || !m_pOutput->GetEdition().m_strTag.empty();
    return IsTemporary(aCause) && (bUnsent || pFound != std::end(IDEMPOTENT)) && bGoesOn;
}

void Getter::OnTimer(CCmTimerWrapperID*) {
    m_pFetch.reset();
    const std::string strProblem = m_pOutput->LookForBeginning();
    Go(strProblem.empty() ? StartAttempt() : Failure{CAUSE_LOCAL, strProblem});
}

// After a signal that is the cause, and the exit status.
void Getter::EndJob(const Failure& aFailure) {
    const GetJob& job = GetJobNow();
    if (aFailure && Application::GetPendingSignal() == 0)
        m_Console.Problem(job.m_strUrl + ": " + aFailure.m_strReason, JsonLine::Failed(aFailure).Add("url", job.m_strUrl));
    else if (!aFailure && job.m_Target.m_Kind != OutputTarget::STDOUT)
        ReportResult();
    if (m_nStatus == EXIT_OK)
        m_nStatus = aFailure.GetExitStatus();
    if (++m_stJob == m_Arguments.m_Get.m_vecJobs.size() || Application::GetPendingSignal() != 0)
        m_Application.Finish(m_nStatus);
    else
        StartJob();
}

void Getter::ReportResult() const {
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - m_llStarted) / 1e6;
    const auto ullRate = static_cast<uint64_t>(static_cast<double>(m_ullGot) / (dSeconds > 0 ? dSeconds : 1e-6));
    const CCmString strProxy = m_pFetch->GetProxy();
    JsonLine json("got");
    json.Add("url", GetJobNow().m_strUrl)
        .Add("name", GetJobNow().m_strName)
        .Add("bytes", m_ullGot)
        .Add("size", m_pFetch->GetSize())
        .Add("seconds", dSeconds);
    if (!strProxy.empty())
        json.Add("proxy", strProxy);
    const uint64_t ullSize = m_pFetch->GetSize();
    const std::string strSize = ullSize == m_ullGot ? "" : " for a file of " + FormatBytes(ullSize);
    m_Console.Report("got " + GetJobNow().m_strName + ": " + FormatBytes(m_ullGot) + strSize + ", " + FormatBytes(ullRate) +
                         "/s" + (strProxy.empty() ? "" : " through " + strProxy),
                     json);
}

}  // namespace tool
