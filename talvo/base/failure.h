// The cause of a failure, as a value.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/types.h"

// The kind of a failure's cause. Only CM_FAILURE_SYSTEM comes with an errno.
enum ECmFailureCause : CmDword {
    CM_FAILURE_NONE = 0,          // no failure; the text and the attempt are ""
    CM_FAILURE_SYSTEM = 1,        // the system refused or reported it; GetErrno returns its errno
    CM_FAILURE_TIMEOUT = 2,       // the caller's time-out passed; the system's own is CM_FAILURE_SYSTEM with ETIMEDOUT
    CM_FAILURE_NO_SUCH_NAME = 3,  // the host name has no address
    CM_FAILURE_NO_RESOLVER = 4,   // no name server gave a usable answer
    CM_FAILURE_SILENCE = 5,       // the peer sent nothing for too long, or did not answer a handshake
    CM_FAILURE_PROTOCOL = 6,      // the peer broke the protocol's rules, or speaks another protocol
    CM_FAILURE_LOCAL = 7          // no memory, no network thread, or a drain
};

// A plain value that allocates nothing: any thread may copy and read it, and its constructors cannot fail. Texts that are too
// long are cut.
class TALVO_API CCmFailure {
public:
    CCmFailure() = default;  // CM_FAILURE_NONE

    // A failure with an errno of the system and its text; errno 0 makes no failure. aVerb and aAddr are the attempt, such as
    // "connect to" and 127.0.0.1:80. A pending name is written as it is.
    CCmFailure(int aErrno, const char* aVerb, const CCmInetAddr& aAddr);
    // A failure with aText and a cause that has no errno.
    CCmFailure(ECmFailureCause aCause, const char* aText, const char* aVerb, const CCmInetAddr& aAddr);

    // A different failure of the same attempt as aAttempt's.
    CCmFailure(ECmFailureCause aCause, const char* aText, const CCmFailure& aAttempt);

    explicit operator bool() const { return m_Cause != CM_FAILURE_NONE; }  // there is a failure
    ECmFailureCause GetCause() const { return m_Cause; }                   // the kind of the cause
    int GetErrno() const { return m_nErrno; }                              // 0 unless the cause is CM_FAILURE_SYSTEM
    const char* GetText() const { return m_szText; }                       // "Connection refused"
    const char* GetAttempt() const { return m_szAttempt; }                 // "connect to 127.0.0.1:80"

    // "connect to 127.0.0.1:80: Connection refused", or "" without a failure.
    CCmString ToString() const;

private:
    ECmFailureCause m_Cause = CM_FAILURE_NONE;
    int m_nErrno = 0;
    char m_szText[208] = {};
    char m_szAttempt[168] = {};
};
