// A question to a script that the application has chosen.
#pragma once

#include "talvo/proxy/discovery/pac_engine.h"
#include "talvo/proxy/discovery/proxy_script.h"

namespace talvo {

// First fetches the script, then asks the engine. Network thread only.
class CScriptRun final : private IPacTextSink, private IPacSink {
public:
    CScriptRun(const CCmString& aScriptUrl, ICmProxyScriptSink& aSink) : m_strScriptUrl(aScriptUrl), m_Sink(aSink) {}
    ~CScriptRun() override;
    CScriptRun(const CScriptRun&) = delete;
    CScriptRun& operator=(const CScriptRun&) = delete;

    // See CCmProxyScript. Throws std::bad_alloc.
    CmResult Find(const CCmProxyScript::CQuestion& aQuestion);

private:
    void OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) override;
    void OnPacEnd(EPacEnd aEnd, const CCmString& aText) override;
    void OnPacAlert(const CCmString& aText) override { m_Sink.OnProxyScriptAlert(aText); }

    CmResult Begin_i(const CPacTextPtr& aScript);
    void End_i(CmResult aReason, const CCmString& aText);

    const CCmString m_strScriptUrl;
    ICmProxyScriptSink& m_Sink;
    CPacQuestion m_Question;
    BOOL m_bOpen = FALSE;
};

}  // namespace talvo
