#include "talvo/base/inet_addr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/name_resolver.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace {

CCmLiveCounter s_Live("CAddrRecord");

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

namespace talvo {

CAddrRecord::CAddrRecord(const char* aGivenName) : m_strGivenName(aGivenName) { ++s_Live; }

CAddrRecord::~CAddrRecord() { --s_Live; }

}  // namespace talvo

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

CmResult CCmInetAddr::SetName(const char* aHostName, WORD aPort) {
    return talvo::WithMemory([&] { SetName_i(aHostName, aPort); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

// Assign the names first: only this can fail. aHostName may be this address's own name.
void CCmInetAddr::SetName_i(const char* aHostName, WORD aPort) {
    DWORD dwAddr = 0;
    const BOOL bAddress = IpAddrStringTo4Bytes(aHostName, dwAddr);
    CCmString strName(bAddress ? "" : aHostName);  // not null: null counts as an address
    m_pRecord = bAddress ? nullptr : new talvo::CAddrRecord(aHostName);
    m_strHostName = std::move(strName);
    m_SockAddr = {AF_INET, htons(aPort), {bAddress ? dwAddr : 0}, {}};
}

CmResult CCmInetAddr::Set_i(const char* aHostName, WORD aPort) {
    SetName_i(aHostName, aPort);
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
    m_pRecord.Reset();
    return SetResolvedIpAddr(aIsNetworkOrder ? aIpAddr : htonl(aIpAddr));
}

CmResult CCmInetAddr::SetResolvedIpAddr(DWORD aIpAddr) {
    m_strHostName.clear();
    m_SockAddr.sin_addr.s_addr = aIpAddr;
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
    if (rv == CM_OK)
        SetResolvedIpAddr(dwAddr);
    return rv;
}

WORD CCmInetAddr::GetPort() const { return ntohs(m_SockAddr.sin_port); }

CCmString CCmInetAddr::GetIpDisplayName() const {
    return IsResolved() ? IpAddr4BytesToString(GetIpAddrIn4Bytes()) : m_strHostName;
}

void CCmInetAddr::Print(char* aText, DWORD aSize) const {
    char szDotted[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &m_SockAddr.sin_addr, szDotted, sizeof szDotted);
    std::snprintf(aText, aSize, "%s:%u", HasAddress() ? szDotted : GetGivenName(), unsigned{GetPort()});
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
