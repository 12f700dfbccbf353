// Why something failed, as a value.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/types.h"

// What kind of cause a failure has. All but the second come without an errno.
enum ECmFailureCause : DWORD {
    CM_FAILURE_NONE = 0,          // nothing has failed; the text and the attempt are ""
    CM_FAILURE_SYSTEM = 1,        // the system refused or reported it: GetErrno says why
    CM_FAILURE_TIMEOUT = 2,       // the caller's time-out passed; the system's own is CM_FAILURE_SYSTEM with ETIMEDOUT
    CM_FAILURE_NO_SUCH_NAME = 3,  // the host name has no address
    CM_FAILURE_NO_RESOLVER = 4,   // no name server gave an answer that could be used
    CM_FAILURE_SILENCE = 5,       // the peer sent nothing for too long, or did not answer a handshake
    CM_FAILURE_PROTOCOL = 6,      // the peer broke the rules of the protocol, or speaks another
    CM_FAILURE_LOCAL = 7          // no memory, no network thread, or a drain
};

// A plain value without memory of its own: it may be copied and read in any thread, and making one cannot fail. Texts that are
// too long are cut.
class TALVO_API CCmFailure {
public:
    CCmFailure() = default;  // CM_FAILURE_NONE

    // aVerb and aAddr say what was attempted: "connect to", 127.0.0.1:80. A pending name is written as it is.
    // With an errno of the system, and its text; 0 makes no failure.
    CCmFailure(int aErrno, const char* aVerb, const CCmInetAddr& aAddr);
    // With a cause that has no errno, and a text for it.
    CCmFailure(ECmFailureCause aCause, const char* aText, const char* aVerb, const CCmInetAddr& aAddr);

    // Another end of what aAttempt has attempted.
    CCmFailure(ECmFailureCause aCause, const char* aText, const CCmFailure& aAttempt);

    explicit operator bool() const { return m_Cause != CM_FAILURE_NONE; }
    ECmFailureCause GetCause() const { return m_Cause; }
    int GetErrno() const { return m_nErrno; }               // 0 unless the cause is CM_FAILURE_SYSTEM
    const char* GetText() const { return m_szText; }        // "Connection refused"
    const char* GetAttempt() const { return m_szAttempt; }  // "connect to 127.0.0.1:80"

    // "connect to 127.0.0.1:80: Connection refused", or "" when nothing has failed.
    CCmString ToString() const;

private:
    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    int m_nErrno = 0;
    char m_szText[64] = {};
    char m_szAttempt[88] = {};
};
