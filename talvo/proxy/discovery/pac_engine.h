// The parts that discovery needs for proxy auto-configuration: an engine for scripts, and the store of fetched texts.
#pragma once

#include <memory>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

// A fetched script or .ins file. It does not change; any thread may read it.
struct CPacText {
    uint64_t m_ullVersion = 0;  // unique in the process: two texts with the same version are equal
    CCmString m_strText;        // UTF-8, at most 1 MiB
};
using CPacTextPtr = std::shared_ptr<const CPacText>;

// One question to a script.
struct CPacQuestion {
    CCmString m_strUrl;         // "scheme://host/" or "scheme://host:port/"
    CCmString m_strHost;        // an IPv6 address without brackets
    int64_t m_llTimeUsec = -1;  // the script's "now", in microseconds since 1970; -1: the engine's clock
    CCmString m_strZone;        // the TZ of the script; "": that of the process
};

// The end of a question.
enum class EPacEnd : DWORD {
    ANSWER,         // the script's answer; "" for null and for other values than a string
    LOAD_FAILED,    // the text is no script, has no FindProxyForURL, or exceeds a limit; the error of a script has its line
    SCRIPT_FAILED,  // the function failed; likewise
    LIMIT,          // the function has exceeded a limit of time, memory or count, or the helper has ended
    NO_ENGINE       // there is no helper program, or it cannot be started now
};

class TALVO_API IPacSink {
public:
    // The one end of a Find that returned CM_ERROR_WOULD_BLOCK, from the loop of the network thread. aText: the answer, or the
    // error in words, with "line N" if the engine has it. It has at most 4,096 bytes; a longer answer arrives as LIMIT. The
    // sink may ask again and cancel others inside.
    virtual void OnPacEnd(EPacEnd aEnd, const CCmString& aText) = 0;
    // The script has called alert(). The default does nothing.
    virtual void OnPacAlert(const CCmString& aText);

protected:
    virtual ~IPacSink();
};

// Runs scripts. Network thread only; nothing in it waits.
class TALVO_API IPacEngine {
public:
    // CM_ERROR_WOULD_BLOCK: one OnPacEnd follows, after the return. The engine keeps aScript until then, and loads it if it has
    // not loaded this version. CM_ERROR_ALREADY_INITIALIZED: aSink has a question. CM_ERROR_NOT_AVAILABLE: no engine can run
    // now, or too many questions wait. CM_ERROR_OUT_OF_MEMORY. aSink is not owned.
    virtual CmResult Find(const CPacTextPtr& aScript, const CPacQuestion& aQuestion, IPacSink& aSink) = 0;
    // Withdraws the question of aSink; no call follows. Does nothing without one.
    virtual void Cancel(IPacSink& aSink) = 0;
    // Why no engine can run now, in words. "": one can, or the cause is not known, as always by default. Throws std::bad_alloc.
    virtual CCmString GetProblem() const;

    // The process's engine; null: scripts cannot run. Not owned: it outlives its questions. Any thread.
    static IPacEngine* Get();
    static void Set(IPacEngine* aEngine);

protected:
    virtual ~IPacEngine();
};

// The failure of a question that no engine can take: "no script can run", with the cause if it is known. Network thread. Throws
// std::bad_alloc.
CCmString DescribeNoEngine();

class TALVO_API IPacTextSink {
public:
    // The one end of a Get that returned CM_ERROR_WOULD_BLOCK, from the loop of the network thread. aText null: the fetch has
    // failed for aReason, and no earlier text serves. aError: its cause in words, or "".
    virtual void OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) = 0;

protected:
    virtual ~IPacTextSink();
};

// Receives the changes of texts.
class TALVO_API IPacTextWatcher {
public:
    // The text of aUrl has been fetched again and is a different one. The network thread's loop.
    virtual void OnPacTextChanged(const CCmString& aUrl) = 0;

protected:
    virtual ~IPacTextWatcher();
};

// Fetches the texts of URLs of the schemes http, https and file, and keeps them as their expiry says. Network thread only;
// nothing in it waits.
class TALVO_API IPacTexts {
public:
    // CM_OK: aText (out) is the kept text of aUrl. If it has expired, it still serves and is fetched again meanwhile.
    // CM_ERROR_WOULD_BLOCK: the first fetch is under way, shared by all sinks; one OnPacText follows, after the return.
    // CM_ERROR_INVALID_ARG: not such a URL. CM_ERROR_ALREADY_INITIALIZED: aSink waits. CM_ERROR_NOT_AVAILABLE: the last fetch
    // has failed, and the next one is not due. CM_ERROR_OUT_OF_MEMORY. aSink is not owned.
    virtual CmResult Get(const CCmString& aUrl, CPacTextPtr& aText, IPacTextSink& aSink) = 0;
    // Withdraws aSink; no call follows. Does nothing if it does not wait.
    virtual void Cancel(IPacTextSink& aSink) = 0;
    // Replaces the expiry of the kept text of aUrl: it is fetched again on the first Get later than this after its fetch.
    virtual void SetLifetime(const CCmString& aUrl, DWORD aSeconds) = 0;
    // aText, of aUrl, cannot be loaded: it is fetched again as soon as after a failed fetch. Does nothing if aUrl has another
    // text by now, or the same was said before. The default does nothing.
    virtual void Reject(const CCmString& aUrl, const CPacTextPtr& aText);
    // All texts are fetched again on their next Get, also those whose fetch has failed lately; meanwhile the old ones serve.
    virtual void Refresh() = 0;
    // Null: none. Not owned.
    virtual void SetWatcher(IPacTextWatcher* aWatcher) = 0;

    // The process's store; null: no text can be fetched. Not owned: it outlives its questions. Any thread.
    static IPacTexts* Get();
    static void Set(IPacTexts* aTexts);

protected:
    virtual ~IPacTexts();
};

}  // namespace talvo
