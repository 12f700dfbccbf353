// Runs an auto-configuration script of the caller's choice, for a look at its answers.
#pragma once

#include <memory>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {
class CScriptRun;
}

// All calls come from the loop of the network thread.
class TALVO_API ICmProxyScriptSink {
public:
    // The script has called alert().
    virtual void OnProxyScriptAlert(const CCmString& aText) = 0;
    // The one end of a Find that returned CM_ERROR_WOULD_BLOCK. CM_OK: aText is the script's answer, unchanged; "" for null and
    // for other values than a string. CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: the script cannot be read or loaded, fails, or
    // exceeds a limit; aText is the error, with its line if it has one. CM_ERROR_NOT_AVAILABLE: no engine can run, as without
    // the helper program; aText is the cause. CM_ERROR_OUT_OF_MEMORY. The sink may ask again inside, or delete the script.
    virtual void OnProxyScriptEnd(CmResult aReason, const CCmString& aText) = 0;

protected:
    virtual ~ICmProxyScriptSink();
};

// One script, and one question to it at a time. Network thread only. The script runs in the helper program, under the same
// limits as the user's own, and its answer is not kept.
class TALVO_API CCmProxyScript {
public:
    // The question to the script.
    struct CQuestion {
        CCmString m_strUrl;         // http or https; the script gets scheme, host and port
        int64_t m_llTimeUsec = -1;  // the script's "now", in microseconds since 1970; -1: the present
        CCmString m_strZone;        // the script's time zone as in the variable TZ; "": that of the process
    };

    // aSink is not owned. aScriptUrl: http, https or file. Throws std::bad_alloc.
    CCmProxyScript(const CCmString& aScriptUrl, ICmProxyScriptSink& aSink);
    ~CCmProxyScript();  // no call follows
    CCmProxyScript(const CCmProxyScript&) = delete;
    CCmProxyScript& operator=(const CCmProxyScript&) = delete;

    // CM_ERROR_WOULD_BLOCK: OnProxyScriptEnd follows, after the return. CM_ERROR_ALREADY_INITIALIZED: a question is open.
    // CM_ERROR_INVALID_ARG: a URL that cannot be used. CM_ERROR_NOT_AVAILABLE: this is not the network thread, no engine can
    // run now, or the script could not be fetched a moment ago. CM_ERROR_OUT_OF_MEMORY.
    CmResult Find(const CQuestion& aQuestion);

private:
    const std::unique_ptr<talvo::CScriptRun> m_pRun;
};
