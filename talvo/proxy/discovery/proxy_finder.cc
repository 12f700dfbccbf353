#include "talvo/proxy/discovery/proxy_finder.h"

#include <algorithm>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr DWORD FAILURE_SECONDS = 10;  // an answer without the script

}  // namespace

CProxyFinder::CProxyFinder(ICmReactor& aReactor, IProxyFinderUser& aUser)
    : m_User(aUser), m_Sources(*this), m_Watch(aReactor, *this) {
    if (IPacTexts* pTexts = IPacTexts::Get())
        pTexts->SetWatcher(this);
}

CProxyFinder::~CProxyFinder() {
    if (IPacTexts* pTexts = IPacTexts::Get())
        pTexts->SetWatcher(nullptr);
}

void CProxyFinder::Start(const CProxyOrigin& aOrigin) {
    CProxyEvaluation* pEvaluation = nullptr;
    const BOOL bMemory = WithMemory([&] {
        auto& pSlot = m_Running[aOrigin.m_strUrl];
        pSlot = std::unique_ptr<CProxyEvaluation>(new CProxyEvaluation(*this, aOrigin));
        pEvaluation = pSlot.get();
    });
    if (!bMemory) {
        m_Running.erase(aOrigin.m_strUrl);
        return Fail_i(aOrigin.m_strUrl);
    }
    if (!m_bLoaded && !Load_i())
        return FailAll_i();
    Check();
    const auto found = m_Running.find(aOrigin.m_strUrl);
    if (m_Sources.IsReady() && found != m_Running.end() && found->second.get() == pEvaluation)
        pEvaluation->Start();
}

void CProxyFinder::Check() {
    WithMemory([this] { m_Sources.Check(); });
}

BOOL CProxyFinder::Load_i() {
    m_bLoaded = WithMemory([this] {
        CDiscoverySettings settings = m_User.GetSettings();
        m_Sources.Load(std::move(settings.m_pApplication), std::move(settings.m_pEnvironment));
        m_dwGeneration = settings.m_dwGeneration;
    });
    return m_bLoaded;
}

void CProxyFinder::Reload() {
    if (!Load_i())
        return FailAll_i();
    StartAll_i();
}

void CProxyFinder::Refresh() {
    if (IPacTexts* pTexts = IPacTexts::Get())
        pTexts->Refresh();
    Reload();
}

void CProxyFinder::BeginAnew_i(const char* aChange) {
    CM_INFO_TRACE_THIS("CProxyFinder::BeginAnew_i, the answers are dropped. changed=" << aChange);
    if (m_User.OnAnswersObsolete(m_dwGeneration) && m_bLoaded)
        StartAll_i();
    else
        Reload();
}

// An evaluation may end inside its start, and then leaves m_Running.
void CProxyFinder::StartAll_i() {
    const BOOL bReady = m_Sources.IsReady();
    CEvaluations old;
    old.swap(m_Running);
    while (!old.empty()) {
        auto node = old.extract(old.begin());
        CProxyEvaluation& evaluation = *node.mapped();
        m_Running.insert(std::move(node));
        if (bReady)
            evaluation.Start();
        else
            evaluation.Stop();
    }
}

void CProxyFinder::OnScriptFailed(const CCmString& aError) {
    const BOOL bMandatory = m_Sources.GetApplication().m_bMandatory;
    if (m_Pace.IsDue())
        CM_ERROR_TRACE_THIS("CProxyFinder::OnScriptFailed, no answer. error=" << aError << " mandatory=" << bMandatory);
}

void CProxyFinder::OnEvaluated(CProxyEvaluation& aEvaluation, CCmProxyAnswer::CValue aValue) {
    if (m_User.GetGeneration() != m_dwGeneration)
        return Reload();
    const CApplicationSettings& application = m_Sources.GetApplication();
    const DWORD dwSeconds =
        aValue.m_strError.empty() ? application.m_dwAnswerSeconds : std::min(application.m_dwAnswerSeconds, FAILURE_SECONDS);
    const auto node = m_Running.extract(aEvaluation.GetOrigin().m_strUrl);
    m_User.OnProxyFound(m_dwGeneration, aEvaluation.GetOrigin().m_strUrl, std::move(aValue), dwSeconds);
}

void CProxyFinder::FailAll_i() {
    CEvaluations old;
    old.swap(m_Running);
    for (const auto& entry : old)
        Fail_i(entry.first);
}

void CProxyFinder::Fail_i(const CCmString& aUrl) {
    CCmProxyAnswer::CValue value;
    value.m_Result = CM_ERROR_OUT_OF_MEMORY;
    m_User.OnProxyFound(m_dwGeneration, aUrl, std::move(value), 0);
}

CPacTextPtr CProxyFinder::GetGoodScript(const CCmString& aUrl) const { return aUrl == m_strGoodUrl ? m_pGoodScript : nullptr; }

void CProxyFinder::SetGoodScript(const CCmString& aUrl, const CPacTextPtr& aScript) {
    m_strGoodUrl = aUrl;
    m_pGoodScript = aScript;
}

}  // namespace talvo
