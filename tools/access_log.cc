#include "tools/access_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "tools/console.h"
#include "tools/json_line.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

// A text from a client inside quotes. Bytes that could end the line or the quotes are written as "\xHH".
std::string Quoted(const std::string& aText) {
    std::string strOut = "\"";
    for (const char c : aText) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\') {
            strOut += c;
            continue;
        }
        char szByte[8];
        std::snprintf(szByte, sizeof szByte, "\\x%02x", byte);
        strOut += szByte;
    }
    return strOut + "\"";
}

// The time in the zone of the process: "[23/Nov/2026:05:10:05 +0000]".
std::string FormatTime(int64_t aWallUsec) {
    const time_t nTime = aWallUsec / 1000000;
    tm parts{};
    localtime_r(&nTime, &parts);
    char szTime[64];
    szTime[std::strftime(szTime, sizeof szTime, "[%d/%b/%Y:%H:%M:%S %z]", &parts)] = 0;
    return szTime;
}

// "2026-11-23T05:10:05.123Z".
std::string FormatIsoTime(int64_t aWallUsec) {
    const time_t nTime = aWallUsec / 1000000;
    tm parts{};
    gmtime_r(&nTime, &parts);
    char szTime[64];
    const size_t stLength = std::strftime(szTime, sizeof szTime, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(szTime + stLength, sizeof szTime - stLength, ".%03dZ", static_cast<int>(aWallUsec / 1000 % 1000));
    return szTime;
}

std::string GetHeader(const CCmHttpRequestHead& aHead, const CCmHttpAtom& aName) {
    const CCmString* pValue = aHead.FindHeader(aName);
    return pValue ? *pValue : "";
}

}  // namespace

std::string FormatCommon(const AccessEntry& aEntry) {
    const std::string strWhole =
        aEntry.m_strMethod + " " + aEntry.m_strTarget + (aEntry.m_bVersion11 ? " HTTP/1.1" : " HTTP/1.0");
    const std::string strRequest = aEntry.m_strMethod.empty() ? "-" : strWhole;  // its first line was not read
    const std::string strPeer = aEntry.m_Peer.GetIpDisplayName();
    return (strPeer.empty() ? "-" : strPeer) + " - - " + FormatTime(aEntry.m_llWallUsec) + " " + Quoted(strRequest) + " " +
           std::to_string(aEntry.m_lStatus) + " " + (aEntry.m_ullBytes > 0 ? std::to_string(aEntry.m_ullBytes) : "-");
}

std::string FormatJson(const AccessEntry& aEntry, double aSeconds) {
    JsonLine json("request");
    json.Add("time", FormatIsoTime(aEntry.m_llWallUsec)).Add("peer", cm_address_text(aEntry.m_Peer));
    json.Add("method", aEntry.m_strMethod).Add("target", aEntry.m_strTarget).Add("status", aEntry.m_lStatus);
    json.Add("bytes", aEntry.m_ullBytes).Add("seconds", aSeconds);
    return json.Add("referer", aEntry.m_strReferer).Add("agent", aEntry.m_strAgent).GetText();
}

std::string AccessLog::Open() {
    FileHandle file(m_strPath == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                                     : open(m_strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640));
    if (!file)
        return "cannot open the access log '" + m_strPath + "': " + SystemError(errno);
    m_File = std::move(file);
    return "";
}

void AccessLog::Write(const AccessEntry& aEntry) {
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - aEntry.m_llStartedUsec) / 1e6;
    const std::string strLine = m_Format == JSON ? FormatJson(aEntry, dSeconds) : FormatCommon(aEntry);
    if (WriteAll(m_File.Get(), strLine + "\n") || m_bLost)
        return;
    m_bLost = true;
    m_Console.Problem({CAUSE_LOCAL, "cannot write to the access log '" + m_strPath + "': " + SystemError(errno)}, "name",
                      m_strPath);
}

AccessRecord::AccessRecord(AccessLog& aLog, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer) : m_Log(aLog) {
    m_Entry.m_Peer = aPeer;
    m_Entry.m_llWallUsec = CCmClock::GetWallUsec();
    m_Entry.m_llStartedUsec = CCmClock::GetTimeOfDayUsec();
    const char* pMethod = aRequest.GetMethod();
    m_Entry.m_strMethod = pMethod ? pMethod : "";
    m_Entry.m_strTarget = aRequest.GetRequestURI();
    m_Entry.m_bVersion11 = aRequest.GetVerion() >= CM_HTTP_VERSION_11;
    m_Entry.m_strReferer = GetHeader(aRequest, CCmHttpAtomList::Referer);
    m_Entry.m_strAgent = GetHeader(aRequest, CCmHttpAtomList::User_Agent);
}

// Without memory for it a line is left out.
AccessRecord::~AccessRecord() {
    talvo::WithMemory([this] { m_Log.Write(m_Entry); });
}

}  // namespace tool
