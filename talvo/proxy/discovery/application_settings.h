// The application's proxy settings.
#pragma once

#include "talvo/proxy/discovery/proxy_settings.h"

namespace talvo {

// The keys of section "HttpProxy" that belong to discovery. A plain value.
struct TALVO_API CApplicationSettings {
    static constexpr DWORD MOST_ANSWER_SECONDS = 3600;
    static constexpr size_t LONGEST_TEXT = 65536;

    CProxySettings m_Proxies;      // Mode, Servers, ScriptUrl; of mode "system": no answer
    CBypassRules m_Bypass;         // Bypass, for all sources
    BOOL m_bMayDetect = FALSE;     // AutoDetect
    BOOL m_bMandatory = FALSE;     // ScriptMandatory
    DWORD m_dwAnswerSeconds = 60;  // AnswerSeconds

    // Those of the configuration. A value that its key cannot have counts as absent, with a trace line. Throws std::bad_alloc.
    static CApplicationSettings FromConfiguration();
    // aText: lines "key=value", with keys in any case. aSettings (out): unchanged unless CM_OK. CM_ERROR_INVALID_ARG: a
    // malformed line, another key, a value that its key cannot have, or a mode without its servers or its script.
    // CM_ERROR_NOT_AVAILABLE: more than LONGEST_TEXT bytes. Throws std::bad_alloc.
    static CmResult Parse(std::string_view aText, CApplicationSettings& aSettings);

    // TRUE: environment and desktop count.
    BOOL IsSystem() const { return m_Mode == SYSTEM; }

private:
    BOOL Set_i(std::string_view aKey, const CCmString& aValue);
    BOOL SetMode_i(std::string_view aMode);
    BOOL Finish_i();

    enum EMode { SYSTEM, DIRECT, MANUAL, SCRIPT };

    EMode m_Mode = SYSTEM;
    CCmString m_strScript;
    CProxySettings::CServers m_Servers;
};

}  // namespace talvo
