#include "talvo/proxy/discovery/script_run.h"

#include "talvo/proxy/discovery/proxy_origin.h"

namespace talvo {

CScriptRun::~CScriptRun() {
    if (!m_bOpen)
        return;
    if (IPacTexts* pTexts = IPacTexts::Get())
        pTexts->Cancel(*this);
    if (IPacEngine* pEngine = IPacEngine::Get())
        pEngine->Cancel(*this);
}

CmResult CScriptRun::Find(const CCmProxyScript::CQuestion& aQuestion) {
    if (m_bOpen)
        return CM_ERROR_ALREADY_INITIALIZED;
    CProxyOrigin origin;
    if (const CmResult rv = CProxyOrigin::Parse(aQuestion.m_strUrl, origin); rv != CM_OK)
        return rv;
    m_Question = {origin.m_strUrl, origin.m_strHost, aQuestion.m_llTimeUsec, aQuestion.m_strZone};
    IPacTexts* pTexts = IPacTexts::Get();
    CPacTextPtr pScript;
    CmResult rv = pTexts ? pTexts->Get(m_strScriptUrl, pScript, *this) : CM_ERROR_NOT_AVAILABLE;
    if (rv == CM_OK)
        rv = Begin_i(pScript);
    m_bOpen = rv == CM_ERROR_WOULD_BLOCK;
    return rv;
}

CmResult CScriptRun::Begin_i(const CPacTextPtr& aScript) {
    IPacEngine* pEngine = IPacEngine::Get();
    return pEngine ? pEngine->Find(aScript, m_Question, *this) : CM_ERROR_NOT_AVAILABLE;
}

void CScriptRun::OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) {
    const CmResult rv = aText ? Begin_i(aText) : aReason;
    if (rv == CM_ERROR_WOULD_BLOCK)
        return;
    if (aText)
        return End_i(rv, DescribeNoEngine());
    const CCmString strError = "the script cannot be read";
    End_i(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, aError.empty() ? strError : strError + ": " + aError);
}

void CScriptRun::OnPacEnd(EPacEnd aEnd, const CCmString& aText) {
    if (aEnd == EPacEnd::NO_ENGINE)
        return End_i(CM_ERROR_NOT_AVAILABLE, DescribeNoEngine());
    End_i(aEnd == EPacEnd::ANSWER ? CM_OK : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, aText);
}

void CScriptRun::End_i(CmResult aReason, const CCmString& aText) {
    m_bOpen = FALSE;
    m_Sink.OnProxyScriptEnd(aReason, aText);  // last: the sink may delete this object
}

}  // namespace talvo
