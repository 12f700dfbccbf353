// The identity of a file's version, and the request conditions that depend on it.
#pragma once

#include <sys/stat.h>

#include <string>

#include "talvo/talvo.h"

namespace tool {

class FileVersion {
public:
    // aCompressed: the file is sent compressed. Such an answer has another tag, and a weak one, since another version of the
    // program may compress to other bytes.
    explicit FileVersion(const struct stat& aStatus, bool aCompressed = false);

    std::string GetTag() const { return (m_bWeak ? "W/" : "") + m_strTag; }  // as in headers, with quotes
    int64_t GetModified() const { return m_llModified; }                     // seconds since 1970 UTC

    // The status for a GET or HEAD of this version, by RFC 9110, 13.2.2. 200: no condition prevents the answer. 304: the client
    // has this version. 412: the client expects another version.
    long JudgeConditions(const CCmHttpRequestHead& aRequest) const;

    // FALSE: the range is of another version, so send all of this one.
    bool IsRangeMeant(const CCmHttpRequestHead& aRequest) const;

private:
    bool IsMeant(const CCmHttpRequestHead& aRequest) const;
    bool IsNotModified(const CCmHttpRequestHead& aRequest) const;

    std::string m_strTag;  // without "W/"
    const bool m_bWeak;
    int64_t m_llModified;
};

}  // namespace tool
