#include "talvo/transport/proxy_route.h"

#include <algorithm>
#include <charconv>
#include <new>
#include <optional>

#include "talvo/base/ascii.h"
#include "talvo/base/secret.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace {

using std::string_view;

struct CWord {
    string_view m_Word;
    ECmProxyKind m_Kind;
};

constexpr CWord SCRIPT_WORDS[] = {{"direct", CM_PROXY_DIRECT},   {"proxy", CM_PROXY_HTTP},   {"http", CM_PROXY_HTTP},
                                  {"https", CM_PROXY_HTTPS},     {"socks", CM_PROXY_SOCKS4}, {"socks4", CM_PROXY_SOCKS4},
                                  {"socks4a", CM_PROXY_SOCKS4A}, {"socks5", CM_PROXY_SOCKS5}};
constexpr CWord SCHEMES[] = {{"direct", CM_PROXY_DIRECT},  {"http", CM_PROXY_HTTP},       {"https", CM_PROXY_HTTPS},
                             {"socks4", CM_PROXY_SOCKS4},  {"socks4a", CM_PROXY_SOCKS4A}, {"socks5", CM_PROXY_SOCKS5},
                             {"socks5h", CM_PROXY_SOCKS5}, {"socks", CM_PROXY_SOCKS5}};
constexpr string_view BLANKS = " \t\r\n";

string_view Trim(string_view aText) {
    const size_t stBegin = aText.find_first_not_of(BLANKS);
    if (stBegin == string_view::npos)
        return {};
    return aText.substr(stBegin, aText.find_last_not_of(BLANKS) - stBegin + 1);
}

BOOL IsSame(string_view aText, string_view aLowerCase) {
    return std::ranges::equal(aText, aLowerCase, [](char a, char b) { return talvo::lower_case(a) == b; });
}

std::optional<ECmProxyKind> KindOf(string_view aText, std::span<const CWord> aWords) {
    const auto word = std::ranges::find_if(aWords, [&](const CWord& a) { return IsSame(aText, a.m_Word); });
    return word != aWords.end() ? std::optional(word->m_Kind) : std::nullopt;
}

// 0: no port.
WORD PortOf(string_view aText) {
    WORD wPort = 0;
    const auto [pEnd, error] = std::from_chars(aText.data(), aText.data() + aText.size(), wPort);
    return error == std::errc() && pEnd == aText.data() + aText.size() ? wPort : WORD{0};
}

// "host", "host:port", "[address]" or "[address]:port".
CmResult MakeServer(ECmProxyKind aKind, string_view aHostAndPort, CCmProxyServer& aServer) {
    const BOOL bBrackets = aHostAndPort.starts_with('[');
    const size_t stClose = bBrackets ? aHostAndPort.find(']') : 0;
    if (stClose == string_view::npos)
        return CM_ERROR_INVALID_ARG;
    const size_t stColon = aHostAndPort.find(':', stClose);
    const string_view host = aHostAndPort.substr(0, stColon);
    const BOOL bAddress = host.find(':') != string_view::npos;
    if (bBrackets && (!bAddress || !host.ends_with(']') || host.find(']') != host.size() - 1))
        return CM_ERROR_INVALID_ARG;
    WORD wPort = 0;
    if (stColon != string_view::npos && (wPort = PortOf(aHostAndPort.substr(stColon + 1))) == 0)
        return CM_ERROR_INVALID_ARG;
    return CCmProxyServer::Make(aKind, bBrackets ? host.substr(1, host.size() - 2) : host, wPort, aServer);
}

CmResult ReadScriptEntry(string_view aEntry, CCmProxyServer& aServer) {
    const size_t stBlank = aEntry.find_first_of(BLANKS);
    const auto kind = KindOf(aEntry.substr(0, stBlank), SCRIPT_WORDS);
    if (!kind)
        return CM_ERROR_INVALID_ARG;
    const string_view rest = stBlank == string_view::npos ? string_view() : Trim(aEntry.substr(stBlank));
    if (*kind == CM_PROXY_DIRECT)
        return rest.empty() ? CCmProxyServer::Make(*kind, {}, 0, aServer) : CM_ERROR_INVALID_ARG;
    return MakeServer(*kind, rest, aServer);
}

int HexOf(char aDigit) {
    if (aDigit >= '0' && aDigit <= '9')
        return aDigit - '0';
    const char letter = talvo::lower_case(aDigit);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// FALSE: a "%" without two digits. The text may be a password: a string that grows would leave copies behind.
BOOL PercentDecode(string_view aText, CCmString& aDecoded) {
    aDecoded.reserve(aText.size());
    for (size_t i = 0; i < aText.size(); ++i) {
        if (aText[i] != '%') {
            aDecoded += aText[i];
            continue;
        }
        if (aText.size() - i < 3 || HexOf(aText[i + 1]) < 0 || HexOf(aText[i + 2]) < 0)
            return FALSE;
        aDecoded += static_cast<char>(HexOf(aText[i + 1]) * 16 + HexOf(aText[i + 2]));
        i += 2;
    }
    return TRUE;
}

// "user" or "user:password".
CmResult ReadCredentials(string_view aText, CCmProxyServer& aServer) {
    const size_t stColon = std::min(aText.find(':'), aText.size());
    const size_t stPassword = std::min(stColon + 1, aText.size());
    CCmString strUser, strPassword;
    const BOOL bDecoded =
        PercentDecode(aText.substr(0, stColon), strUser) && PercentDecode(aText.substr(stPassword), strPassword);
    const CmResult rv = bDecoded ? aServer.SetCredentials(strUser, strPassword) : CM_ERROR_INVALID_ARG;
    talvo::WipeText(strPassword);
    return rv;
}

CmResult ReadUri(string_view aEntry, CCmProxyServer& aServer) {
    const size_t stScheme = aEntry.find("://");
    const string_view scheme = stScheme != string_view::npos ? aEntry.substr(0, stScheme) : "http";
    const auto kind = KindOf(scheme, SCHEMES);
    if (!kind)
        return CM_ERROR_INVALID_ARG;
    string_view authority = stScheme != string_view::npos ? aEntry.substr(stScheme + 3) : aEntry;
    if (*kind == CM_PROXY_DIRECT || IsSame(aEntry, "direct"))
        return stScheme == string_view::npos || authority.empty() ? CCmProxyServer::Make(CM_PROXY_DIRECT, {}, 0, aServer)
                                                                  : CM_ERROR_INVALID_ARG;
    if (authority.ends_with('/'))
        authority.remove_suffix(1);
    const size_t stAt = authority.rfind('@');
    const size_t stHost = stAt == string_view::npos ? 0 : stAt + 1;
    const CmResult rv = MakeServer(*kind, authority.substr(stHost), aServer);
    return rv == CM_OK && stHost > 0 ? ReadCredentials(authority.substr(0, stAt), aServer) : rv;
}

// aRead: CM_ERROR_INVALID_ARG if its entry is no server. Throws std::bad_alloc.
std::vector<CCmProxyServer> ReadEntries(string_view aText, char aSeparator,
                                        CmResult (*aRead)(string_view aEntry, CCmProxyServer& aServer)) {
    std::vector<CCmProxyServer> servers;
    DWORD dwSkipped = 0;
    for (size_t stBegin = 0; stBegin <= aText.size();) {
        const size_t stEnd = std::min(aText.find(aSeparator, stBegin), aText.size());
        const string_view entry = Trim(aText.substr(stBegin, stEnd - stBegin));
        stBegin = stEnd + 1;
        if (entry.empty())
            continue;
        CCmProxyServer server;
        const CmResult rv = servers.size() == CCmProxyRoute::MOST_SERVERS ? CM_ERROR_INVALID_ARG : aRead(entry, server);
        if (rv == CM_ERROR_OUT_OF_MEMORY)
            throw std::bad_alloc();
        if (rv == CM_OK)
            servers.push_back(std::move(server));
        else
            ++dwSkipped;
    }
    if (dwSkipped > 0)
        CM_WARNING_TRACE("CCmProxyRoute, entries skipped. count=" << dwSkipped << " servers=" << servers.size());
    return servers;
}

}  // namespace

CmResult CCmProxyRoute::FromScript(string_view aText, CCmProxyRoute& aRoute) {
    return aRoute.Take_i([&] { return ReadEntries(aText, ';', ReadScriptEntry); });
}

CmResult CCmProxyRoute::FromUris(string_view aText, CCmProxyRoute& aRoute) {
    return aRoute.Take_i([&] { return ReadEntries(aText, ',', ReadUri); });
}

template <class Callable>
CmResult CCmProxyRoute::Take_i(Callable aRead) {
    std::shared_ptr<const CServers> pServers;
    if (!talvo::WithMemory([&] { pServers = std::make_shared<const CServers>(aRead()); }))
        return CM_ERROR_OUT_OF_MEMORY;
    if (pServers->empty())
        return CM_ERROR_INVALID_ARG;
    m_pServers = std::move(pServers);
    return CM_OK;
}

CmResult CCmProxyRoute::Add(const CCmProxyServer& aServer) {
    const auto servers = GetServers();
    if (servers.size() == MOST_SERVERS)
        return CM_ERROR_NOT_AVAILABLE;
    return Take_i([&] {
        CServers longer(servers.begin(), servers.end());
        longer.push_back(aServer);
        return longer;
    });
}

CCmString CCmProxyRoute::GetText() const {
    CCmString strText;
    for (const CCmProxyServer& server : GetServers())
        strText += (strText.empty() ? "" : ",") + server.GetText();
    return strText;
}

CCmString CCmProxyRoute::GetScriptText() const {
    constexpr const char* WORDS[] = {"DIRECT", "PROXY ", "HTTPS ", "SOCKS ", "SOCKS4A ", "SOCKS5 "};  // by ECmProxyKind
    CCmString strText;
    for (const CCmProxyServer& server : GetServers()) {
        const CCmString strUri = server.GetText();
        strText += strText.empty() ? "" : "; ";
        strText += WORDS[server.GetKind()] + strUri.substr(strUri.find("://") + 3);
    }
    return strText;
}
