// What a version of a file is known by, and what a request makes depend on it.
#pragma once

#include <sys/stat.h>

#include <string>

#include "talvo/talvo.h"

namespace tool {

class FileVersion {
public:
    explicit FileVersion(const struct stat& aStatus);

    const std::string& GetTag() const { return m_strTag; }  // as it stands in headers, quotes included
    int64_t GetModified() const { return m_llModified; }    // seconds since 1970 UTC

    // What a GET or HEAD of this version is answered with, by RFC 9110, 13.2.2: 200 as if there were no conditions; 304: the
    // client has it; 412: it is another than the client means.
    long JudgeConditions(const CCmHttpRequestHead& aRequest) const;

    // FALSE: a range is asked for of another version, so that all of this one is due.
    bool IsRangeMeant(const CCmHttpRequestHead& aRequest) const;

private:
    bool IsMeant(const CCmHttpRequestHead& aRequest) const;
    bool IsNotModified(const CCmHttpRequestHead& aRequest) const;

    std::string m_strTag;
    int64_t m_llModified;
};

}  // namespace tool
