#include "talvo/http/message/http_url.h"

#include <algorithm>
#include <cstdlib>

#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_text.h"

namespace {

constexpr std::string_view SCHEMES[] = {"http", "https", "file"};
constexpr std::string_view SEPARATOR = "://";

BOOL is_letter(char aLetter) { return talvo::lower_case(aLetter) >= 'a' && talvo::lower_case(aLetter) <= 'z'; }

}  // namespace

CCmHttpUrl::CCmHttpUrl(const CCmHttpUrl& aOther) : CCmReferenceControlT() { *this = aOther; }

CCmHttpUrl& CCmHttpUrl::operator=(const CCmHttpUrl& aOther) {
    m_strSpec = aOther.m_strSpec;
    m_strScheme = aOther.m_strScheme;
    m_strPath = aOther.m_strPath;
    m_strHostName = aOther.m_strHostName;
    m_wPort = aOther.m_wPort;
    return *this;
}

BOOL CCmHttpUrl::Init(std::string_view aSpec) {
    CCmHttpUrl url;  // not this one: the text given may be its own
    BOOL bDone = FALSE;
    return talvo::WithMemory([&] {
               bDone = url.Parse(aSpec);
               *this = url;
           }) &&
           bDone;
}

BOOL CCmHttpUrl::Parse(std::string_view aSpec) {
    std::string_view strRest = aSpec.substr(std::min(aSpec.find_first_not_of(' '), aSpec.size()));
    const size_t stScheme = strRest.find(SEPARATOR);
    const auto pScheme = std::find_if(std::begin(SCHEMES), std::end(SCHEMES), [&](std::string_view aScheme) {
        return talvo::equal_no_case(aScheme, strRest.substr(0, stScheme));
    });
    if (stScheme == std::string_view::npos || pScheme == std::end(SCHEMES))
        return FALSE;
    m_strScheme = *pScheme;
    strRest.remove_prefix(stScheme + SEPARATOR.size());
    if (m_strScheme == "file") {
        m_strPath = FilePath(strRest);
        return TRUE;
    }
    const size_t stPath = std::min(strRest.find('/'), strRest.size());
    if (!SetNameAndPort(strRest.substr(0, stPath)))
        return FALSE;
    SetPath(strRest.substr(stPath));
    return TRUE;
}

// Begins at a drive's letter right before the first slash, otherwise behind that slash, which skips a host's name or an empty
// one.
CCmString CCmHttpUrl::FilePath(std::string_view aRest) {
    const size_t stSlash = aRest.find('/');
    if (stSlash != std::string_view::npos) {
        const BOOL bDrive = stSlash >= 2 && aRest[stSlash - 1] == ':' && is_letter(aRest[stSlash - 2]);
        aRest.remove_prefix(bDrive ? stSlash - 2 : stSlash + 1);
    }
    CCmString strPath(aRest);
    std::replace(strPath.begin(), strPath.end(), '/', '\\');
    return strPath;
}

void CCmHttpUrl::SetPath(std::string_view aPath) {
    m_strPath = aPath.empty() ? "/" : aPath;
    m_strSpec.clear();
}

WORD CCmHttpUrl::GetDefaultPort() const { return m_strScheme == "http" ? 80 : m_strScheme == "https" ? 443 : 0; }

void CCmHttpUrl::SetPort(WORD aPort) {
    m_wPort = aPort ? aPort : GetDefaultPort();
    m_strSpec.clear();
}

CCmString CCmHttpUrl::GetNameAndPort(int aForcePort) const {
    const CCmString strHost = talvo::bracket_host(m_strHostName);
    return !aForcePort && m_wPort == GetDefaultPort() ? strHost : strHost + ":" + std::to_string(m_wPort);
}

BOOL CCmHttpUrl::SetNameAndPort(std::string_view aNameAndPort) {
    BOOL bDone = FALSE;
    return talvo::WithMemory([&] { bDone = SetNameAndPort_i(aNameAndPort); }) && bDone;
}

BOOL CCmHttpUrl::SetNameAndPort_i(std::string_view aNameAndPort) {
    const std::optional<talvo::CHttpIpLiteral> literal = talvo::parse_ip_literal(aNameAndPort);
    if (aNameAndPort.empty() || (!literal && aNameAndPort.find_first_of("[]") != std::string_view::npos))
        return FALSE;
    const size_t stColon = literal ? aNameAndPort.size() - literal->m_Port.size() : aNameAndPort.find(':');
    const CCmString strPort(aNameAndPort.substr(std::min(stColon, aNameAndPort.size() - 1) + 1));
    m_strHostName = literal ? literal->GetHost() : CCmString(aNameAndPort.substr(0, stColon));
    SetPort(static_cast<WORD>(std::strtol(strPort.c_str(), nullptr, 10)));
    return TRUE;
}

const CCmString& CCmHttpUrl::GetAsciiSpec() const {
    if (m_strSpec.empty() && !talvo::WithMemory([this] { MakeSpec(); }))
        m_strSpec.clear();
    return m_strSpec;
}

void CCmHttpUrl::MakeSpec() const {
    m_strSpec.append(m_strScheme).append(SEPARATOR).append(GetNameAndPort(0));
    if (m_strPath.empty() || m_strPath.front() != '/')
        m_strSpec.append("/");
    m_strSpec.append(m_strPath);
}
