#include "tools/send_attempts.h"

namespace tool {

SendAttempts::SendAttempts(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments),
      m_Application(aApplication),
      m_Console(aConsole),
      m_Progress(aConsole),
      m_Rate(aArguments.m_Transfer.m_ullRate),
      m_Backoff(aArguments.m_Transfer.m_dwRetries) {}

void SendAttempts::Start() {
    m_Progress.Start();
    StartAttempt();
}

void SendAttempts::StartAttempt() {
    m_pSender.reset();
    ISenderUser& user = *this;
    m_pSender = std::make_unique<Sender>(m_Arguments, m_Console, m_Progress.GetMeter(), m_Rate, m_Record, user);
    m_pSender->Start();
}

void SendAttempts::OnTimer(CCmTimerWrapperID*) { StartAttempt(); }

void SendAttempts::OnSent(const Failure& aFailure) {
    if (aFailure && TryAgain(aFailure))
        return;
    if (aFailure)
        m_Console.Problem(aFailure, "peer", cm_address_text(m_Arguments.m_Addr));
    m_Application.Finish(aFailure || m_Record.m_bFailed ? EXIT_FAILED : EXIT_OK);
}

// TRUE: another attempt follows.
bool SendAttempts::TryAgain(const Failure& aFailure) {
    long lSeconds = 0;
    if (!IsTemporary(aFailure.m_Cause) || !m_pSender->MayRepeat() || Application::GetPendingSignal() != 0)
        return false;
    if (m_pSender->GetBytes() > 0)
        m_Backoff.OnProgress();
    if (!m_Backoff.Next(lSeconds))
        return false;
    m_Console.Problem(aFailure.m_strReason + "; next attempt in " + std::to_string(lSeconds) + " s",
                      JsonLine("retry")
                          .Add("reason", aFailure.m_strReason)
                          .Add("seconds", lSeconds)
                          .Add("left", m_Backoff.GetLeft())
                          .Add("peer", cm_address_text(m_Arguments.m_Addr)));
    return m_Timer.Schedule(this, CCmTimeValue(lSeconds), 1) == CM_OK;
}

}  // namespace tool
