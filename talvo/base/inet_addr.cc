#include "talvo/base/inet_addr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "talvo/base/ascii.h"
#include "talvo/base/name_resolver.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace {

using talvo::CAddrRecord;
using talvo::CIpBytes;

constexpr size_t MAX_HOST_LENGTH = 255;

// Constructed before every other static object and never destroyed, because these may use it at any time.
union CImmortalAddr {
    CImmortalAddr() : m_Addr() {}
    ~CImmortalAddr() {}
    CCmInetAddr m_Addr;
};

[[gnu::init_priority(101)]] CImmortalAddr s_Any;

// Null: the address needs none. Throws.
CCmRefPtrT<CAddrRecord> RecordOf(const CIpBytes& aIp, WORD aPort, const char* aGivenName) {
    if (aIp.m_byFamily == 6)
        return new CAddrRecord(aGivenName, {AF_INET6, htons(aPort), 0, aIp.GetIpv6(), aIp.m_dwScope});
    return *aGivenName ? new CAddrRecord(aGivenName) : nullptr;
}

// Takes the brackets of an IPv6 literal.
BOOL ParseIpv6(std::string_view aText, CIpBytes& aIp) {
    if (aText.starts_with('[') && aText.ends_with(']'))
        aText = aText.substr(1, aText.size() - 2);
    return aText.find(':') != std::string_view::npos && CIpBytes::Parse(aText, aIp);
}

// The position of the colon before the port, or npos. An IPv6 literal has colons of its own.
size_t FindPort(std::string_view aHostAndPort) {
    CIpBytes ip;
    const size_t stBracket = aHostAndPort.find(']') + 1;
    if (aHostAndPort.substr(stBracket).starts_with(':') && ParseIpv6(aHostAndPort.substr(0, stBracket), ip))
        return stBracket;
    return ParseIpv6(aHostAndPort, ip) ? std::string_view::npos : aHostAndPort.find(':');
}

// A path for messages: without NUL, and without bytes that would end a line.
char Printable(char aByte) {
    if (aByte == '\0')
        return '@';
    return talvo::is_control(aByte) ? '?' : aByte;
}

}  // namespace

constinit const CCmInetAddr& CCmInetAddr::s_InetAddrAny = s_Any.m_Addr;

CCmInetAddr::CCmInetAddr(const char* aHostName, WORD aPort) { Set_i(aHostName, aPort); }

CCmInetAddr::CCmInetAddr(const char* aIpAddrAndPort) { Set_i(aIpAddrAndPort); }

CCmInetAddr::CCmInetAddr(const CIpBytes& aIp, WORD aPort)
    : m_SockAddr{AF_INET, htons(aPort), {aIp.GetIpv4()}, {}}, m_pRecord(RecordOf(aIp, aPort, "")) {}

CmResult CCmInetAddr::Set(const char* aHostName, WORD aPort) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Set_i(aHostName, aPort); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmInetAddr::Set(const char* aIpAddrAndPort) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Set_i(aIpAddrAndPort); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmInetAddr::SetName(const char* aHostName, WORD aPort) {
    return talvo::WithMemory([&] { SetName_i(aHostName, aPort); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

// Everything that can fail comes first. aHostName may be this address's own name.
void CCmInetAddr::SetName_i(const char* aHostName, WORD aPort) {
    DWORD dwAddr = 0;
    CIpBytes ip;
    if (IpAddrStringTo4Bytes(aHostName, dwAddr)) {
        SetIpv4_i(dwAddr, aPort);
    } else if (ParseIpv6(aHostName, ip)) {
        *this = CCmInetAddr(ip, aPort);
    } else {
        CCmString strName(aHostName);
        SetOther_i(new CAddrRecord(aHostName), aPort);
        m_strHostName = std::move(strName);
    }
}

void CCmInetAddr::SetIpv4_i(DWORD aIpAddr, WORD aPort) {
    SetOther_i(nullptr, aPort);
    m_SockAddr.sin_addr.s_addr = aIpAddr;
}

void CCmInetAddr::SetOther_i(CCmRefPtrT<CAddrRecord> aRecord, WORD aPort) {
    m_SockAddr = {AF_INET, htons(aPort), {0}, {}};
    m_strHostName.clear();
    m_pRecord = std::move(aRecord);
}

// With the record's own port.
void CCmInetAddr::SetOther_i(CCmRefPtrT<CAddrRecord> aRecord) {
    const sockaddr_in6* pIpv6 = aRecord->GetIpv6();
    const WORD wPort = pIpv6 ? ntohs(pIpv6->sin6_port) : WORD{0};
    SetOther_i(std::move(aRecord), wPort);
}

CmResult CCmInetAddr::Set_i(const char* aHostName, WORD aPort) {
    SetName_i(aHostName, aPort);
    return TryResolve();
}

CmResult CCmInetAddr::Set_i(const char* aIpAddrAndPort) {
    if (!aIpAddrAndPort)
        return CM_ERROR_INVALID_ARG;
    const std::string_view text(aIpAddrAndPort);
    const size_t stColon = FindPort(text);
    if (stColon == std::string_view::npos)
        CM_WARNING_TRACE("CCmInetAddr::Set, unknow aIpAddrAndPort=" << aIpAddrAndPort);
    const std::string_view host = text.substr(0, stColon);
    if (host.size() > MAX_HOST_LENGTH)
        return CM_ERROR_NOT_AVAILABLE;
    const char* pPort = stColon == std::string_view::npos ? "0" : aIpAddrAndPort + stColon + 1;
    return Set_i(CCmString(host).c_str(), static_cast<WORD>(std::strtol(pPort, nullptr, 10)));
}

CmResult CCmInetAddr::SetIpAddrByString(const char* aIpAddr) {
    DWORD dwAddr;
    CIpBytes ip;
    if (IpAddrStringTo4Bytes(aIpAddr, dwAddr))
        return SetIpAddrBy4Bytes(dwAddr, TRUE);
    return ParseIpv6(aIpAddr, ip) ? SetIpAddr(ip) : CM_ERROR_FAILURE;
}

CmResult CCmInetAddr::SetIpAddrBy4Bytes(DWORD aIpAddr, BOOL aIsNetworkOrder) {
    SetIpv4_i(aIsNetworkOrder ? aIpAddr : htonl(aIpAddr), GetPort());
    return CM_OK;
}

CmResult CCmInetAddr::SetIpAddr(const CIpBytes& aIp) { return SetIp_i(aIp, GetPort()); }

CmResult CCmInetAddr::SetIp_i(const CIpBytes& aIp, WORD aPort) {
    return talvo::WithMemory([&] { *this = CCmInetAddr(aIp, aPort); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmInetAddr::SetResolvedIpAddr(const CIpBytes& aIp) {
    const DWORD dwIpv4 = aIp ? aIp.GetIpv4() : INADDR_NONE;
    CCmRefPtrT<CAddrRecord> pRecord = m_pRecord;  // with its name it also fits every IPv4 address
    if (aIp.m_byFamily == 6 || GetOther_i()) {
        if (!talvo::WithMemory([&] { pRecord = RecordOf(aIp, GetPort(), GetGivenName()); }))
            return CM_ERROR_OUT_OF_MEMORY;
    }
    SetOther_i(std::move(pRecord), GetPort());
    m_SockAddr.sin_addr.s_addr = dwIpv4;
    return CM_OK;
}

CmResult CCmInetAddr::SetPort(WORD aPort) {
    if (GetType() == AF_UNIX)
        return CM_ERROR_NOT_AVAILABLE;
    if (GetOther_i()) {
        CCmRefPtrT<CAddrRecord> pRecord;
        if (!talvo::WithMemory([&] { pRecord = RecordOf(GetIpBytes(), aPort, GetGivenName()); }))
            return CM_ERROR_OUT_OF_MEMORY;
        m_pRecord = std::move(pRecord);
    }
    m_SockAddr.sin_port = htons(aPort);
    return CM_OK;
}

CmResult CCmInetAddr::SetPath(const char* aPath) {
    if (!aPath || !*aPath || std::strcmp(aPath, "@") == 0)
        return CM_ERROR_INVALID_ARG;
    const std::string_view path(aPath);
    sockaddr_un addr{AF_UNIX, {}};
    if (path.size() >= sizeof addr.sun_path)
        return CM_ERROR_NOT_AVAILABLE;
    path.copy(addr.sun_path, path.size());
    const BOOL bAbstract = path.starts_with('@');
    if (bAbstract)
        addr.sun_path[0] = '\0';
    // The terminator belongs to a path; an abstract name ends with its last byte.
    const size_t stLength = offsetof(sockaddr_un, sun_path) + path.size() + (bAbstract ? 0 : 1);
    return cm_from_sockaddr(reinterpret_cast<const sockaddr*>(&addr), static_cast<socklen_t>(stLength), *this);
}

CmResult CCmInetAddr::TryResolve() {
    if (IsResolved())
        return CM_OK;
    ICmNameResolver* pResolver = ICmNameResolver::Get();
    if (!pResolver)
        return CM_ERROR_WOULD_BLOCK;
    CIpBytes ip;
    const CmResult rv = pResolver->ResolveFromCache(m_strHostName, ip);
    return rv == CM_OK ? SetResolvedIpAddr(ip) : rv;
}

WORD CCmInetAddr::GetPort() const { return ntohs(m_SockAddr.sin_port); }

CIpBytes CCmInetAddr::GetIpBytes() const {
    if (!HasAddress() || GetType() == AF_UNIX)
        return {};
    const sockaddr_in6* pIpv6 = m_pRecord ? m_pRecord->GetIpv6() : nullptr;
    return pIpv6 ? CIpBytes::OfIpv6(pIpv6->sin6_addr, pIpv6->sin6_scope_id) : CIpBytes::OfIpv4(GetIpAddrIn4Bytes());
}

CCmString CCmInetAddr::GetIpDisplayName() const {
    if (!IsResolved())
        return m_strHostName;
    if (GetType() == AF_UNIX)
        return cm_address_text(*this);
    return GetOther_i() ? GetIpBytes().GetText() : IpAddr4BytesToString(GetIpAddrIn4Bytes());
}

void CCmInetAddr::Print(char* aText, DWORD aSize) const {
    if (aSize == 0)
        return;
    if (GetType() == AF_UNIX) {
        const std::string_view path = m_pRecord->GetPath().substr(0, aSize - 1);
        *std::transform(path.begin(), path.end(), aText, Printable) = '\0';
        return;
    }
    char szIp[CIpBytes::TEXT_SIZE];
    GetIpBytes().Print(szIp);
    const char* pFormat = GetOther_i() ? "[%s]:%u" : "%s:%u";
    std::snprintf(aText, aSize, pFormat, HasAddress() ? szIp : GetGivenName(), unsigned{GetPort()});
}

bool CCmInetAddr::operator==(const CCmInetAddr& aRight) const {
    if (m_SockAddr.sin_family != aRight.m_SockAddr.sin_family || m_SockAddr.sin_port != aRight.m_SockAddr.sin_port ||
        m_SockAddr.sin_addr.s_addr != aRight.m_SockAddr.sin_addr.s_addr)
        return false;
    const BOOL bOther = GetOther_i() != nullptr;
    const BOOL bRightOther = aRight.GetOther_i() != nullptr;
    return bOther == bRightOther && (!bOther || m_pRecord->Compare(*aRight.m_pRecord) == 0);
}

bool CCmInetAddr::operator<(const CCmInetAddr& aRight) const {
    const BOOL bOther = GetOther_i() != nullptr;
    const BOOL bRightOther = aRight.GetOther_i() != nullptr;
    if (bOther != bRightOther)
        return bRightOther;
    if (bOther)
        return m_pRecord->Compare(*aRight.m_pRecord) < 0;
    if (m_SockAddr.sin_addr.s_addr != aRight.m_SockAddr.sin_addr.s_addr)
        return m_SockAddr.sin_addr.s_addr < aRight.m_SockAddr.sin_addr.s_addr;
    return m_SockAddr.sin_port < aRight.m_SockAddr.sin_port;
}

BOOL CCmInetAddr::IpAddrStringTo4Bytes(const char* aIpAddr, DWORD& aOut) {
    aOut = 0;
    if (!aIpAddr || !*aIpAddr)
        return TRUE;
    aOut = inet_addr(aIpAddr);
    return aOut != INADDR_NONE || std::strcmp(aIpAddr, "255.255.255.255") == 0;
}

CCmString CCmInetAddr::IpAddr4BytesToString(DWORD aIpAddr) {
    char szText[INET_ADDRSTRLEN];
    const in_addr addr{aIpAddr};
    const char* pText = inet_ntop(AF_INET, &addr, szText, sizeof(szText));
    return pText ? pText : "";
}

CmResult cm_from_sockaddr(const sockaddr* aAddr, socklen_t aLength, CCmInetAddr& aOut) {
    constexpr size_t UNIX_HEAD = offsetof(sockaddr_un, sun_path);
    if (!aAddr || aLength < UNIX_HEAD)
        return CM_ERROR_INVALID_ARG;
    if (aAddr->sa_family == AF_INET && aLength >= sizeof(sockaddr_in)) {
        const auto* pIpv4 = reinterpret_cast<const sockaddr_in*>(aAddr);
        aOut.SetIpv4_i(pIpv4->sin_addr.s_addr, ntohs(pIpv4->sin_port));
        return CM_OK;
    }
    if (aAddr->sa_family == AF_INET6 && aLength >= sizeof(sockaddr_in6)) {
        const auto* pIpv6 = reinterpret_cast<const sockaddr_in6*>(aAddr);
        return aOut.SetIp_i(CIpBytes::OfIpv6(pIpv6->sin6_addr, pIpv6->sin6_scope_id), ntohs(pIpv6->sin6_port));
    }
    if (aAddr->sa_family != AF_UNIX)
        return CM_ERROR_INVALID_ARG;
    sockaddr_un addr{};
    const socklen_t length = std::min<socklen_t>(aLength, sizeof addr);  // 111 if the path fills it
    std::memcpy(&addr, aAddr, length);
    const BOOL bMemory = talvo::WithMemory([&] { aOut.SetOther_i(new CAddrRecord(addr, length), 0); });
    return bMemory ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CCmString cm_address_text(const CCmInetAddr& aAddr) {
    constexpr size_t ROOM = 128;  // for every text without a name
    CCmString strText(std::strlen(aAddr.GetGivenName()) + ROOM, '\0');
    aAddr.Print(strText.data(), static_cast<DWORD>(strText.size()));
    strText.resize(std::strlen(strText.c_str()));
    return strText;
}
