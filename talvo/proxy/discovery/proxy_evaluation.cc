#include "talvo/proxy/discovery/proxy_evaluation.h"

#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/config_text.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr const char* RULE = "rule";
constexpr size_t LONGEST_ANSWER = 4096;

// The items that lie within the longest answer.
std::string_view CutAnswer(std::string_view aText) {
    if (aText.size() <= LONGEST_ANSWER)
        return aText;
    const size_t stEnd = aText.rfind(';', LONGEST_ANSWER);
    return aText.substr(0, stEnd == std::string_view::npos ? 0 : stEnd);
}

BOOL IsFile(std::string_view aUrl) { return IsSameNoCase(aUrl.substr(0, aUrl.find(':')), "file"); }

const char* TextOf(EPacEnd aEnd) {
    switch (aEnd) {
    case EPacEnd::LOAD_FAILED:
        return "the script cannot be loaded";
    case EPacEnd::SCRIPT_FAILED:
        return "the script failed";
    case EPacEnd::LIMIT:
        return "the script exceeded a limit";
    default:
        return "";
    }
}

}  // namespace

void CProxyEvaluation::Start() {
    Stop();
    Do_i([this] { Choose_i(); });
}

void CProxyEvaluation::Stop() {
    if (IPacTexts* pTexts = std::exchange(m_pTexts, nullptr))
        pTexts->Cancel(*this);
    if (IPacEngine* pEngine = std::exchange(m_pEngine, nullptr))
        pEngine->Cancel(*this);
    m_Urls.clear();
    m_strError.clear();
    m_ErrorReason = CM_OK;
    m_pScript.reset();
    m_Value.reset();
}

// A step that ends the evaluation sets m_Value. The user may destroy this object, so its call is the last.
template <class Step>
void CProxyEvaluation::Do_i(Step aStep) {
    if (!WithMemory(aStep)) {
        Stop();
        m_Value.emplace();
        m_Value->m_Result = CM_ERROR_OUT_OF_MEMORY;
    }
    if (!m_Value)
        return;
    CCmProxyAnswer::CValue value = std::move(*m_Value);
    m_Value.reset();
    m_User.OnEvaluated(*this, std::move(value));
}

void CProxyEvaluation::Choose_i() {
    const CProxySources& sources = m_User.GetSources();
    if (m_Origin.m_strUrl.empty()) {
        CCmProxyAnswer::CValue value;
        value.m_Settings = sources.GetFound();
        m_Value = std::move(value);
        return;
    }
    const CBypassRules& bypass = sources.GetApplication().m_Bypass;
    if (bypass.Matches(m_Origin) || (m_Origin.IsLoopback() && !bypass.AllowsLoopback()))
        return Finish_i(CCmProxyRoute::Direct(), RULE);
    for (const CProxySettings* pSettings : sources.GetAll())
        if (Apply_i(*pSettings))
            return;
    Finish_i(CCmProxyRoute::Direct(), "none");
}

// FALSE: aSettings have no answer.
BOOL CProxyEvaluation::Apply_i(const CProxySettings& aSettings) {
    CProxySettings::CServers servers;
    switch (aSettings.Choose(m_Origin, servers)) {
    case CProxySettings::NOTHING:
        return FALSE;
    case CProxySettings::ROUTE:
        Finish_i(servers.m_Route, servers.m_strSource);
        return TRUE;
    case CProxySettings::BYPASSED:
        Finish_i(CCmProxyRoute::Direct(), RULE);
        return TRUE;
    case CProxySettings::SCRIPT:
        Fetch_i(aSettings.m_strScript);
        return TRUE;
    }
    return FALSE;
}

void CProxyEvaluation::Fetch_i(const CCmString& aUrl) {
    m_strSource = "script " + HideCredentials(aUrl);
    if (m_Urls.size() > CInsFile::MOST_FILES || std::ranges::find(m_Urls, aUrl) != m_Urls.end())
        return Fail_i("the .ins files are too many, or a circle");
    if (!m_Urls.empty() && IsFile(aUrl) && !IsFile(m_Urls.back()))
        return Fail_i("an .ins file of the network names a file of this machine");
    m_Urls.push_back(aUrl);
    IPacTexts* pTexts = IPacTexts::Get();
    CPacTextPtr pText;
    const CmResult rv = pTexts ? pTexts->Get(aUrl, pText, *this) : CM_ERROR_NOT_IMPLEMENTED;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_ERROR_WOULD_BLOCK)
        m_pTexts = pTexts;
    else if (rv == CM_OK && pText)
        Use_i(pText);
    else
        TakeError_i("the script cannot be fetched");
}

void CProxyEvaluation::OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) {
    m_pTexts = nullptr;
    Do_i([&] {
        if (aText)
            Use_i(aText);
        else
            TakeError_i(aError.empty() ? "the script cannot be fetched, reason " + std::to_string(aReason) : aError);
    });
}

void CProxyEvaluation::Use_i(const CPacTextPtr& aText) {
    if (!CInsFile::IsOne(m_Urls.back(), aText->m_strText))
        return Run_i(aText);
    if (m_Urls.size() > CInsFile::MOST_FILES)
        return Fail_i("the .ins files are too many");
    CInsFile file;
    if (!CInsFile::Parse(aText->m_strText, file))
        return Fail_i("the .ins file is too long");
    IPacTexts* pTexts = IPacTexts::Get();
    if (pTexts && file.m_dwSeconds > 0)
        pTexts->SetLifetime(m_Urls.back(), file.m_dwSeconds);
    m_User.GetSources().ResolveDetection(file.m_Settings);
    if (!Apply_i(file.m_Settings))
        Finish_i(CCmProxyRoute::Direct(), m_strSource);
}

void CProxyEvaluation::Run_i(const CPacTextPtr& aScript) {
    m_pScript = aScript;
    IPacEngine* pEngine = IPacEngine::Get();
    CPacQuestion question;
    question.m_strUrl = m_Origin.m_strUrl;
    question.m_strHost = m_Origin.m_strHost;
    const CmResult rv = pEngine ? pEngine->Find(aScript, question, *this) : CM_ERROR_NOT_IMPLEMENTED;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_ERROR_WOULD_BLOCK)
        m_pEngine = pEngine;
    else
        Fail_i(DescribeNoEngine(), CM_ERROR_NOT_AVAILABLE);
}

void CProxyEvaluation::OnPacEnd(EPacEnd aEnd, const CCmString& aText) {
    m_pEngine = nullptr;
    Do_i([&] {
        if (aEnd == EPacEnd::ANSWER)
            return TakeAnswer_i(aText);
        IPacTexts* pTexts = IPacTexts::Get();
        if (pTexts && aEnd == EPacEnd::LOAD_FAILED)
            pTexts->Reject(m_Urls.back(), m_pScript);
        if (aEnd == EPacEnd::NO_ENGINE)
            return TakeError_i(DescribeNoEngine(), CM_ERROR_NOT_AVAILABLE);
        TakeError_i(TextOf(aEnd) + (aText.empty() ? "" : ": " + aText));
    });
}

void CProxyEvaluation::TakeAnswer_i(const CCmString& aText) {
    m_User.SetGoodScript(m_Urls.front(), m_pScript);
    CCmProxyRoute route = CCmProxyRoute::Direct();
    const CmResult rv = CCmProxyRoute::FromScript(CutAnswer(aText), route);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    Finish_i(route, m_strSource);
}

// The last good script serves. If it was the one that failed, there is no answer.
void CProxyEvaluation::TakeError_i(const CCmString& aError, CmResult aReason) {
    const CPacTextPtr pGood = m_User.GetGoodScript(m_Urls.front());
    const BOOL bSame = pGood && m_pScript && pGood->m_ullVersion == m_pScript->m_ullVersion;
    if (!pGood || bSame || !m_strError.empty())
        return m_strError.empty() ? Fail_i(aError, aReason) : Fail_i(m_strError, m_ErrorReason);
    m_strError = aError;
    m_ErrorReason = aReason;
    CM_WARNING_TRACE_THIS("CProxyEvaluation::TakeError_i, the last good script serves. error=" << aError);
    Run_i(pGood);
}

void CProxyEvaluation::Finish_i(const CCmProxyRoute& aRoute, const CCmString& aSource) {
    CCmProxyAnswer::CValue value;
    value.m_Route = aRoute;
    value.m_strSource = aSource;
    value.m_strError = m_strError;
    value.m_ErrorReason = m_ErrorReason;
    m_Value = std::move(value);
}

void CProxyEvaluation::Fail_i(const CCmString& aError, CmResult aReason) {
    m_strError = aError;
    m_ErrorReason = aReason;
    const BOOL bMandatory = m_User.GetSources().GetApplication().m_bMandatory;
    m_User.OnScriptFailed(aError);
    Finish_i(bMandatory ? CCmProxyRoute() : CCmProxyRoute::Direct(), m_strSource);
    if (bMandatory)
        m_Value->m_Result = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
}

}  // namespace talvo
