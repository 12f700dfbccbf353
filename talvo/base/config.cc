#include "talvo/base/config.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/config_complaints.h"
#include "talvo/base/config_text.h"
#include "talvo/base/immortal.h"
#include "talvo/base/mutex.h"
#include "talvo/base/read_text.h"
#include "talvo/base/trace.h"

namespace {

constexpr size_t MAX_FILE_LENGTH = 1 << 20;  // bytes; a longer file counts as unreadable
constexpr size_t MAX_COMPLAINTS = 100;

using CKey = std::pair<CCmString, CCmString>;
using CKeyView = std::pair<std::string_view, std::string_view>;

struct CBefore {
    using is_transparent = void;
    static CKeyView View(const CKeyView& aKey) { return aKey; }
    static CKeyView View(const CKey& aKey) { return {aKey.first, aKey.second}; }
    template <class Left, class Right>
    bool operator()(const Left& aLeft, const Right& aRight) const {
        return View(aLeft) < View(aRight);
    }
};

// Never destroyed: threads may still read keys while the process exits.
struct CConfiguration {
    CCmMutexThread m_Mutex;
    BOOL m_bLoaded CM_GUARDED_BY(m_Mutex) = FALSE;
    std::map<CKey, CCmString, CBefore> m_Values CM_GUARDED_BY(m_Mutex);  // by section and key
    std::vector<CCmString> m_Complaints CM_GUARDED_BY(m_Mutex);          // lines for the trace
};

CConfiguration& Configuration() {
    static talvo::CImmortalT<CConfiguration> s_Configuration;
    return *s_Configuration;
}

using ConfigurationGuard = CCmMutexGuardT<CCmMutexThread>;

// Returns the reason to refuse an open file, or "". A file that another user can write could carry that user's commands. This
// checks the descriptor, because the path may name another file by now.
CCmString JudgeRights(HANDLE aFd) {
    struct stat status {};
    if (fstat(aFd, &status) != 0)
        return "its owner is not known";
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return "it belongs to another user, owner=" + std::to_string(status.st_uid);
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "users other than its owner may write it" : "";
}

// Likewise for the folder of the path: without the sticky bit, other users can move another of the owner's files there.
CCmString JudgeFolder(const CCmString& aPath) {
    const size_t nSlash = aPath.rfind('/');
    const CCmString strFolder = nSlash == CCmString::npos ? "." : aPath.substr(0, nSlash + 1);
    struct stat status {};
    if (stat(strFolder.c_str(), &status) != 0)
        return "its folder is not known";
    return (status.st_mode & (S_IWOTH | S_ISVTX)) == S_IWOTH ? "all users may write its folder" : "";
}

// Closes the file, even if memory runs out.
struct CClose {
    ~CClose() { close(m_Fd); }
    const HANDLE m_Fd;
};

CCmString DefaultPath() {
    const std::unique_ptr<char, decltype(&std::free)> pDirectory(getcwd(nullptr, 0), &std::free);
    return pDirectory ? CCmString(pDirectory.get()) + "/conf/talvo.cfg" : "/tmp/talvo.cfg";
}

void ParseText_l(CConfiguration& aConfiguration, std::string_view aText) CM_REQUIRES(aConfiguration.m_Mutex) {
    talvo::CConfigLines lines(aText);
    for (auto kind = lines.Next(); kind != talvo::CConfigLines::END; kind = lines.Next()) {
        if (kind == talvo::CConfigLines::VALUE)
            aConfiguration.m_Values[{CCmString(lines.GetSection()), CCmString(lines.GetKey())}] = lines.GetValue();
        else if (aConfiguration.m_Complaints.size() < MAX_COMPLAINTS)
            aConfiguration.m_Complaints.push_back("line is malformed and skipped, line=" + std::to_string(lines.GetNumber()));
    }
}

CmResult Load_l(CConfiguration& aConfiguration, const CCmString& aPath) CM_REQUIRES(aConfiguration.m_Mutex) {
    aConfiguration.m_bLoaded = TRUE;
    aConfiguration.m_Values.clear();
    aConfiguration.m_Complaints.clear();
    const HANDLE fd = open(aPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == CM_INVALID_HANDLE)
        return CM_ERROR_NOT_FOUND;
    const CClose closing{fd};
    CCmString strRefusal = JudgeRights(fd);
    if (strRefusal.empty())
        strRefusal = JudgeFolder(aPath);
    const auto strText = strRefusal.empty() ? talvo::ReadText(fd, MAX_FILE_LENGTH) : std::nullopt;
    if (!strRefusal.empty()) {
        aConfiguration.m_Complaints.push_back("file is refused: " + strRefusal + ", path=" + aPath);
        return CM_ERROR_NOT_AVAILABLE;
    }
    if (!strText)
        return CM_ERROR_NOT_FOUND;
    ParseText_l(aConfiguration, *strText);
    return CM_OK;
}

// A null aPath means the default path. If memory runs out, there are no keys for now, and the next reader tries again.
CmResult TryLoad_l(CConfiguration& aConfiguration, const char* aPath) CM_REQUIRES(aConfiguration.m_Mutex) {
    try {
        return Load_l(aConfiguration, aPath ? CCmString(aPath) : DefaultPath());
    } catch (const std::bad_alloc&) {
        aConfiguration.m_Values.clear();
        aConfiguration.m_bLoaded = aPath != nullptr;
        return CM_ERROR_OUT_OF_MEMORY;
    }
}

void LoadOnce() {
    CConfiguration& configuration = Configuration();
    {
        ConfigurationGuard guard(configuration.m_Mutex);
        if (configuration.m_bLoaded)
            return;
        TryLoad_l(configuration, nullptr);
    }
    talvo::TraceConfigComplaints();
}

// Calls aUse with the key's value, if there is one. aUse runs under the lock, so that no copy takes memory.
template <class Use>
void WithValue(const char* aSection, const char* aKey, Use aUse) {
    if (!aSection || !aKey)
        return;
    LoadOnce();
    CConfiguration& configuration = Configuration();
    ConfigurationGuard guard(configuration.m_Mutex);
    const auto it = configuration.m_Values.find(CKeyView(aSection, aKey));
    if (it != configuration.m_Values.end())
        aUse(it->second);
}

template <class Number>
Number ParseNumber(std::string_view aDigits, Number aDefault) {
    const bool bNegative = !aDigits.empty() && aDigits.front() == '-';
    if (bNegative)
        aDigits.remove_prefix(1);
    const bool bHex = aDigits.starts_with("0x") || aDigits.starts_with("0X");
    if (bHex)
        aDigits.remove_prefix(2);
    uint32_t dwMagnitude = 0;
    const char* pEnd = aDigits.data() + aDigits.size();
    const auto result = std::from_chars(aDigits.data(), pEnd, dwMagnitude, bHex ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != pEnd)
        return aDefault;
    const int64_t llValue = bNegative ? -int64_t{dwMagnitude} : int64_t{dwMagnitude};
    return std::in_range<Number>(llValue) ? static_cast<Number>(llValue) : aDefault;
}

template <class Number>
Number GetNumber(const char* aSection, const char* aKey, Number aDefault) {
    Number value = aDefault;
    WithValue(aSection, aKey, [&](const CCmString& aValue) { value = ParseNumber(aValue, aDefault); });
    return value;
}

bool IsOneOf(const CCmString& aText, std::initializer_list<const char*> aWords) {
    for (const char* pWord : aWords)
        if (strcasecmp(aText.c_str(), pWord) == 0)
            return true;
    return false;
}

}  // namespace

namespace talvo {

void TraceConfigComplaints() {
    if (!CCmTrace::IsEnabled(CM_TRACE_WARNING))
        return;
    std::vector<CCmString> lines;
    CConfiguration& configuration = Configuration();
    {
        ConfigurationGuard guard(configuration.m_Mutex);
        lines.swap(configuration.m_Complaints);
    }
    for (const CCmString& strLine : lines)
        CM_WARNING_TRACE("load_config_file, " << strLine);
}

}  // namespace talvo

CCmString get_string_param(const char* aSection, const char* aKey, const CCmString& aDefault) {
    CCmString strValue = aDefault;
    WithValue(aSection, aKey, [&](const CCmString& aValue) { strValue = aValue; });
    return strValue;
}

int get_int_param(const char* aSection, const char* aKey, int aDefault) { return GetNumber(aSection, aKey, aDefault); }

uint16_t get_uint16_param(const char* aSection, const char* aKey, uint16_t aDefault) {
    return GetNumber(aSection, aKey, aDefault);
}

uint32_t get_uint32_param(const char* aSection, const char* aKey, uint32_t aDefault) {
    return GetNumber(aSection, aKey, aDefault);
}

bool get_bool_param(const char* aSection, const char* aKey, bool aDefault) {
    bool bValue = aDefault;
    WithValue(aSection, aKey, [&](const CCmString& aValue) {
        if (IsOneOf(aValue, {"1", "true", "yes", "on"}))
            bValue = true;
        else if (IsOneOf(aValue, {"0", "false", "no", "off"}))
            bValue = false;
    });
    return bValue;
}

CmResult load_config_file(const char* aPath) {
    if (!aPath)
        return CM_ERROR_INVALID_ARG;
    CmResult rv;
    {
        CConfiguration& configuration = Configuration();
        ConfigurationGuard guard(configuration.m_Mutex);
        rv = TryLoad_l(configuration, aPath);
    }
    talvo::TraceConfigComplaints();
    return rv;
}
