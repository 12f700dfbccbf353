#include "tools/proxy_look.h"

#include <cstdio>

#include "tools/text.h"

namespace tool {

namespace {

Failure DescribeFailure(CmResult aResult) { return {GetCause(aResult), DescribeResult(aResult)}; }

// A script that cannot be read, or ends with an error, counts as a violation by its server. The result is that of a proxy
// server out of reach, and another one without the helper program.
ECause GetScriptCause(CmResult aResult) {
    const ECause cause = GetCause(aResult);
    return cause == CAUSE_OTHER || cause == CAUSE_CONNECT ? CAUSE_PROTOCOL : cause;
}

}  // namespace

ProxyLook::ProxyLook(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole), m_bSettings(aArguments.m_bSettings) {
    ICmProxyScriptSink& sink = *this;
    if (!m_Arguments.m_strScript.empty())
        m_pScript = std::make_unique<CCmProxyScript>(m_Arguments.m_strScript, sink);
}

ProxyLook::~ProxyLook() {
    if (CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance())
        pDiscovery->CancelFind(this);
}

void ProxyLook::Start() {
    CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
    const CmResult rv = pDiscovery ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_OK && !m_bSettings)
        return AskNext();
    const CmResult settings = rv == CM_OK ? pDiscovery->FindSettings(this) : rv;
    if (settings == CM_ERROR_WOULD_BLOCK)
        return;
    ShowSettingsFailure(settings);
    m_Application.Finish(m_nStatus);
}

// Continues until a search has to wait.
void ProxyLook::AskNext() {
    while (m_nNext < m_Arguments.m_vecUrls.size()) {
        m_strUrl = m_Arguments.m_vecUrls[m_nNext++];
        m_llAsked = CCmClock::GetTimeOfDayUsec();
        const CmResult rv = Ask(m_strUrl);
        if (rv == CM_ERROR_WOULD_BLOCK)
            return;
        if (rv != CM_OK)
            ShowFailure(m_strUrl, rv == CM_ERROR_NOT_AVAILABLE && m_ScriptFailure ? m_ScriptFailure : DescribeFailure(rv));
    }
    m_Application.Finish(m_nStatus);
}

CmResult ProxyLook::Ask(const std::string& aUrl) {
    if (m_pScript)
        return m_pScript->Find({aUrl, m_Arguments.m_llAtUsec, ""});
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    const CmResult rv = CCmProxyDiscovery::Instance()->Find(pAnswer.ParaOut(), aUrl, this);
    if (rv == CM_OK)
        ShowAnswer(*pAnswer, true);
    return rv;
}

void ProxyLook::OnObserve(const char*, void* aData) {
    const auto& answer = *static_cast<const CCmProxyAnswer*>(aData);
    if (m_bSettings)
        ShowSettings(answer);
    else
        ShowAnswer(answer, false);
    m_bSettings = false;
    AskNext();
}

void ProxyLook::ShowSettings(const CCmProxyAnswer& aAnswer) {
    if (aAnswer.GetResult() != CM_OK)
        ShowSettingsFailure(aAnswer.GetResult());
    else if (aAnswer.GetSettings().empty() && m_Console.GetOutput() != Console::JSON)
        m_Console.Report("no setting names a proxy", JsonLine(""));
    for (const CCmProxySetting& setting : aAnswer.GetSettings()) {
        const JsonLine json = JsonLine("setting")
                                  .Add("source", setting.m_strSource)
                                  .Add("name", setting.m_strName)
                                  .Add("value", setting.m_strValue);
        m_Console.Result(setting.m_strSource + ": " + setting.m_strName + "=" + setting.m_strValue, json);
    }
}

void ProxyLook::ShowAnswer(const CCmProxyAnswer& aAnswer, bool aKept) {
    if (!aAnswer.GetError().empty())
        ShowFailure(m_strUrl, {GetScriptCause(aAnswer.GetErrorReason()), aAnswer.GetError()});
    if (aAnswer.GetResult() == CM_OK)
        ShowRoute(aAnswer.GetRoute().GetScriptText(), aAnswer.GetSource(), aKept);
    else if (aAnswer.GetError().empty())
        ShowFailure(m_strUrl, DescribeFailure(aAnswer.GetResult()));
}

void ProxyLook::ShowRoute(const std::string& aRoute, const std::string& aSource, bool aKept) {
    const double dMs = static_cast<double>(CCmClock::GetTimeOfDayUsec() - m_llAsked) / 1000;
    char szMs[40];
    std::snprintf(szMs, sizeof szMs, "%.3f ms", dMs);
    const JsonLine json =
        JsonLine("route").Add("url", m_strUrl).Add("route", aRoute).Add("source", aSource).Add("kept", aKept).Add("msec", dMs);
    m_Console.Result(m_strUrl + ": " + aRoute + ", from " + aSource + (aKept ? ", kept, " : ", ") + szMs, json);
}

void ProxyLook::ShowFailure(const std::string& aUrl, const Failure& aFailure) {
    m_Console.Problem(aUrl + ": " + aFailure.m_strReason, JsonLine::Failed(aFailure).Add("url", aUrl));
    m_nStatus = EXIT_FAILED;
}

void ProxyLook::ShowSettingsFailure(CmResult aResult) {
    m_Console.Problem({GetCause(aResult), "cannot find the settings: " + DescribeResult(aResult)});
    m_nStatus = EXIT_FAILED;
}

void ProxyLook::OnProxyScriptAlert(const CCmString& aText) { std::fprintf(stderr, "alert: %s\n", Printable(aText).c_str()); }

void ProxyLook::OnProxyScriptEnd(CmResult aReason, const CCmString& aText) {
    CCmProxyRoute route = CCmProxyRoute::Direct();
    if (aReason != CM_OK)
        ShowFailure(m_strUrl, m_ScriptFailure = {GetScriptCause(aReason), aText});
    else if (CCmProxyRoute::FromScript(aText, route) != CM_ERROR_OUT_OF_MEMORY)  // no valid entry: DIRECT
        ShowRoute(route.GetScriptText(), "script " + m_Arguments.m_strScript, false);
    AskNext();
}

}  // namespace tool
