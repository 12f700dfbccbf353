// One way from an origin to its route.
#pragma once

#include <optional>
#include <vector>

#include "talvo/proxy/discovery/ins_file.h"
#include "talvo/proxy/discovery/pac_engine.h"
#include "talvo/proxy/discovery/proxy_sources.h"

namespace talvo {

class CProxyEvaluation;

class IProxyEvaluationUser {
public:
    virtual const CProxySources& GetSources() const = 0;
    // The last script of aUrl that has given an answer; null: none.
    virtual CPacTextPtr GetGoodScript(const CCmString& aUrl) const = 0;
    virtual void SetGoodScript(const CCmString& aUrl, const CPacTextPtr& aScript) = 0;
    // There is no answer of the script, for the trace.
    virtual void OnScriptFailed(const CCmString& aError) = 0;
    // The end of a Start, perhaps inside it. The evaluation may be destroyed or started again inside.
    virtual void OnEvaluated(CProxyEvaluation& aEvaluation, CCmProxyAnswer::CValue aValue) = 0;

protected:
    virtual ~IProxyEvaluationUser() = default;
};

// Chooses the source, follows .ins files, asks the script. Network thread.
class CProxyEvaluation final : private IPacTextSink, private IPacSink {
public:
    // Without a URL in aOrigin: finds the settings, not a route.
    CProxyEvaluation(IProxyEvaluationUser& aUser, CProxyOrigin aOrigin) : m_User(aUser), m_Origin(std::move(aOrigin)) {}
    ~CProxyEvaluation() override { Stop(); }

    // Begins, or begins again.
    void Start();
    // Withdraws its questions.
    void Stop();
    const CProxyOrigin& GetOrigin() const { return m_Origin; }

private:
    void OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) override;
    void OnPacEnd(EPacEnd aEnd, const CCmString& aText) override;

    template <class Step>
    void Do_i(Step aStep);
    void Choose_i();
    BOOL Apply_i(const CProxySettings& aSettings);
    void Fetch_i(const CCmString& aUrl);
    void Use_i(const CPacTextPtr& aText);
    void Run_i(const CPacTextPtr& aScript);
    void TakeAnswer_i(const CCmString& aText);
    void TakeError_i(const CCmString& aError, CmResult aReason = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE);
    void Finish_i(const CCmProxyRoute& aRoute, const CCmString& aSource);
    void Fail_i(const CCmString& aError, CmResult aReason = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE);

    IProxyEvaluationUser& m_User;
    const CProxyOrigin m_Origin;
    std::vector<CCmString> m_Urls;    // of the files, each names the next
    CCmString m_strSource;            // of the script
    CCmString m_strError;             // of the newest script, while the last good one runs
    CmResult m_ErrorReason = CM_OK;   // likewise
    CPacTextPtr m_pScript;            // is running
    IPacTexts* m_pTexts = nullptr;    // not owned; while it fetches
    IPacEngine* m_pEngine = nullptr;  // not owned; while it runs
    std::optional<CCmProxyAnswer::CValue> m_Value;
};

}  // namespace talvo
