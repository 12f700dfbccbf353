#include "talvo/base/inet_addr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "talvo/base/name_resolver.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace {

constexpr size_t MAX_HOST_LENGTH = 255;

// Constructed before every other static object and never destroyed, because these may use it at any time.
union CImmortalAddr {
    CImmortalAddr() : m_Addr() {}
    ~CImmortalAddr() {}
    CCmInetAddr m_Addr;
};

[[gnu::init_priority(101)]] CImmortalAddr s_Any;

}  // namespace

constinit const CCmInetAddr& CCmInetAddr::s_InetAddrAny = s_Any.m_Addr;

CCmInetAddr::CCmInetAddr(const char* aHostName, WORD aPort) { Set_i(aHostName, aPort); }

CCmInetAddr::CCmInetAddr(const char* aIpAddrAndPort) { Set_i(aIpAddrAndPort); }

CmResult CCmInetAddr::Set(const char* aHostName, WORD aPort) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Set_i(aHostName, aPort); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmInetAddr::Set(const char* aIpAddrAndPort) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Set_i(aIpAddrAndPort); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

// Assign the name first: only this can fail.
CmResult CCmInetAddr::Set_i(const char* aHostName, WORD aPort) {
    DWORD dwAddr = 0;
    const BOOL bAddress = IpAddrStringTo4Bytes(aHostName, dwAddr);
    m_strHostName = bAddress ? "" : aHostName;  // aHostName is not null here: a null name counts as an address
    m_bNoAddress = FALSE;
    m_SockAddr = {AF_INET, htons(aPort), {bAddress ? dwAddr : 0}, {}};
    return TryResolve();
}

CmResult CCmInetAddr::Set_i(const char* aIpAddrAndPort) {
    if (!aIpAddrAndPort)
        return CM_ERROR_INVALID_ARG;
    const char* pColon = std::strchr(aIpAddrAndPort, ':');
    if (!pColon)
        CM_WARNING_TRACE("CCmInetAddr::Set, unknow aIpAddrAndPort=" << aIpAddrAndPort);
    const size_t nHost = pColon ? static_cast<size_t>(pColon - aIpAddrAndPort) : std::strlen(aIpAddrAndPort);
    if (nHost > MAX_HOST_LENGTH)
        return CM_ERROR_NOT_AVAILABLE;
    const WORD wPort = pColon ? static_cast<WORD>(std::strtol(pColon + 1, nullptr, 10)) : WORD{0};
    return Set_i(CCmString(aIpAddrAndPort, nHost).c_str(), wPort);
}

CmResult CCmInetAddr::SetIpAddrByString(const char* aIpAddr) {
    DWORD dwAddr;
    if (!IpAddrStringTo4Bytes(aIpAddr, dwAddr))
        return CM_ERROR_FAILURE;
    return SetIpAddrBy4Bytes(dwAddr, TRUE);
}

CmResult CCmInetAddr::SetIpAddrBy4Bytes(DWORD aIpAddr, BOOL aIsNetworkOrder) {
    m_strHostName.clear();
    m_bNoAddress = FALSE;
    m_SockAddr.sin_addr.s_addr = aIsNetworkOrder ? aIpAddr : htonl(aIpAddr);
    return CM_OK;
}

CmResult CCmInetAddr::SetPort(WORD aPort) {
    m_SockAddr.sin_port = htons(aPort);
    return CM_OK;
}

CmResult CCmInetAddr::TryResolve() {
    if (IsResolved())
        return CM_OK;
    ICmNameResolver* pResolver = ICmNameResolver::Get();
    if (!pResolver)
        return CM_ERROR_WOULD_BLOCK;
    DWORD dwAddr = INADDR_NONE;
    const CmResult rv = pResolver->ResolveFromCache(m_strHostName, dwAddr);
    if (rv != CM_OK)
        return rv;
    m_bNoAddress = dwAddr == INADDR_NONE;
    if (!m_bNoAddress)
        m_strHostName.clear();
    m_SockAddr.sin_addr.s_addr = dwAddr;
    return CM_OK;
}

WORD CCmInetAddr::GetPort() const { return ntohs(m_SockAddr.sin_port); }

CCmString CCmInetAddr::GetHostName() const { return m_bNoAddress ? CCmString() : m_strHostName; }

CCmString CCmInetAddr::GetFailedName() const { return HasFailed_i() ? m_strHostName : CCmString(); }

CCmString CCmInetAddr::GetIpDisplayName() const {
    return IsResolved() ? IpAddr4BytesToString(GetIpAddrIn4Bytes()) : m_strHostName;
}

void CCmInetAddr::Print(char* aText, DWORD aSize) const {
    char szDotted[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &m_SockAddr.sin_addr, szDotted, sizeof szDotted);
    std::snprintf(aText, aSize, "%s:%u", HasAddress() ? szDotted : m_strHostName.c_str(), unsigned{GetPort()});
}

bool CCmInetAddr::operator==(const CCmInetAddr& aRight) const {
    return m_SockAddr.sin_family == aRight.m_SockAddr.sin_family && m_SockAddr.sin_port == aRight.m_SockAddr.sin_port &&
           m_SockAddr.sin_addr.s_addr == aRight.m_SockAddr.sin_addr.s_addr;
}

bool CCmInetAddr::operator<(const CCmInetAddr& aRight) const {
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
