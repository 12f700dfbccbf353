// An answer of the proxy discovery.
#pragma once

#include <vector>

#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/transport/proxy_route.h"

// One setting that discovery has found.
struct CCmProxySetting {
    CCmString m_strSource;  // "application", "environment", "KDE", "GNOME"; with a file, "KDE /home/u/.config/kioslaverc"
    CCmString m_strName;    // the name in the source: "https_proxy", "ProxyType"
    CCmString m_strValue;   // with "***" for credentials
};

// A value with a reference count. It does not change; any thread.
class TALVO_API CCmProxyAnswer : public CCmReferenceControlT<CCmMutexThread> {
public:
    // The values of the functions below.
    struct CValue {
        CmResult m_Result = CM_OK;                // of GetResult
        CCmProxyRoute m_Route;                    // of GetRoute
        CCmString m_strSource;                    // of GetSource
        CCmString m_strError;                     // of GetError
        CmResult m_ErrorReason = CM_OK;           // of GetErrorReason
        std::vector<CCmProxySetting> m_Settings;  // of GetSettings
    };
    // Not for applications.
    explicit CCmProxyAnswer(CValue aValue) : m_Value(std::move(aValue)) {}
    ~CCmProxyAnswer() override = default;

    // CM_OK: the route is not empty. CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: the script is mandatory and has no answer.
    // CM_ERROR_NOT_AVAILABLE: the network thread has ended. CM_ERROR_OUT_OF_MEMORY.
    CmResult GetResult() const { return m_Value.m_Result; }
    const CCmProxyRoute& GetRoute() const { return m_Value.m_Route; }  // the servers in their order
    // The source that decided: "application", "environment https_proxy", "KDE", "GNOME", "script URL", "rule" for a host that
    // is direct by a bypass rule, "none" if no source has a setting.
    const CCmString& GetSource() const { return m_Value.m_strSource; }
    // The failure of the script or of its fetch, in words and with the line; "": it did not fail. The route is then DIRECT,
    // or there is none if the script is mandatory.
    const CCmString& GetError() const { return m_Value.m_strError; }
    // CM_OK: there is no failure of the script. CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: it cannot be fetched or loaded,
    // fails, or exceeds a limit. CM_ERROR_NOT_AVAILABLE: no engine can run, as without the helper program.
    CmResult GetErrorReason() const { return m_Value.m_ErrorReason; }
    // Those of an answer to FindSettings, the strongest source first; else empty.
    const std::vector<CCmProxySetting>& GetSettings() const { return m_Value.m_Settings; }

private:
    const CValue m_Value;
};
