// The access log of `talvo serve`: one line for each answer.
#pragma once

#include <cstdint>
#include <string>

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/file_handle.h"

namespace tool {

struct AccessEntry {
    CCmInetAddr m_Peer;
    int64_t m_llWallUsec = 0;
    int64_t m_llStartedUsec = 0;  // of the clock that is never set
    std::string m_strMethod;
    std::string m_strTarget;
    bool m_bVersion11 = false;
    std::string m_strReferer;
    std::string m_strAgent;
    long m_lStatus = 0;
    uint64_t m_ullBytes = 0;  // of the body, as far as the connection has taken it
};

// The line, without its end. aSeconds: from the request's head to the end of the answer.
std::string FormatCommon(const AccessEntry& aEntry);
std::string FormatJson(const AccessEntry& aEntry, double aSeconds);

// Main thread. A write blocks if the file is a pipe whose reader is slow.
class AccessLog {
public:
    enum EFormat { COMMON, JSON };

    // aPath: "-" is stdout. Other files are appended to, and created with the rights 0640.
    AccessLog(std::string aPath, EFormat aFormat, Console& aConsole)
        : m_strPath(std::move(aPath)), m_Format(aFormat), m_Console(aConsole) {}

    // Opens the file, or opens it again after it was renamed. Returns "" or an error text; then the old file stays in use.
    std::string Open();
    const std::string& GetPath() const { return m_strPath; }

    // A line that cannot be written is lost. The first loss is reported.
    void Write(const AccessEntry& aEntry);

private:
    const std::string m_strPath;
    const EFormat m_Format;
    Console& m_Console;
    FileHandle m_File;
    bool m_bLost = false;
};

// One answer, whose line is written when this is destroyed. The log outlives it.
class AccessRecord {
public:
    // aRequest: its head, or a part of that.
    AccessRecord(AccessLog& aLog, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer);
    ~AccessRecord();
    AccessRecord(const AccessRecord&) = delete;
    AccessRecord& operator=(const AccessRecord&) = delete;

    void SetStatus(long aStatus) { m_Entry.m_lStatus = aStatus; }
    void AddBytes(uint64_t aBytes) { m_Entry.m_ullBytes += aBytes; }

private:
    AccessLog& m_Log;
    AccessEntry m_Entry;
};

}  // namespace tool
