// The causes of failures: a word of each in JSON, and an exit status.
#pragma once

#include <string>

#include "talvo/talvo.h"

namespace tool {

// The value is the exit status of a program that failed for this cause.
enum ECause : int {
    CAUSE_OTHER = 1,
    CAUSE_USAGE = 2,     // wrong arguments
    CAUSE_NAME = 3,      // a host name has no address
    CAUSE_CONNECT = 4,   // no connection: the peer or its proxy server refuses or cannot be reached
    CAUSE_TLS = 5,       // no agreement on TLS, or a certificate that is not trusted
    CAUSE_TIMEOUT = 6,   // the peer is silent for too long
    CAUSE_BROKEN = 7,    // the connection ended before the end of the data
    CAUSE_PROTOCOL = 8,  // the peer violates the protocol
    CAUSE_REFUSED = 9,   // the peer's answer is an error, such as a status of HTTP from 300 on
    CAUSE_LOCAL = 10,    // a file, the disk, the memory or another resource of this machine
    CAUSE_CHANGED = 11,  // the rest of a transfer belongs to another version of the file
};

// "other", "usage", "name" and so on.
const char* GetCauseName(ECause aCause);

// The cause that a result of the library stands for. aDetail, if known, is more exact.
ECause GetCause(CmResult aReason, const CCmFailure& aDetail = {});

// The text of a result of the library, for people.
std::string DescribeResult(CmResult aResult);

// The outcome of an operation that can fail. Without a reason it has not failed.
struct Failure {
    ECause m_Cause = CAUSE_OTHER;
    std::string m_strReason;  // for people, on one line, without a full stop

    explicit operator bool() const { return !m_strReason.empty(); }
    int GetExitStatus() const { return m_strReason.empty() ? 0 : m_Cause; }
};

}  // namespace tool
