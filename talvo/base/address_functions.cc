#include "talvo/base/address_functions.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "talvo/base/trace.h"

namespace {

constexpr size_t MAX_URL_LENGTH = 64;

bool LookUp(const char* aName, in_addr& aAddr) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    if (getaddrinfo(aName, nullptr, &hints, &pFound) != 0)
        return false;
    aAddr = reinterpret_cast<const sockaddr_in*>(pFound->ai_addr)->sin_addr;
    freeaddrinfo(pFound);
    return true;
}

bool LookUpOwnName(in_addr& aAddr) {
    char szName[256];
    if (gethostname(szName, sizeof(szName)) != 0)
        return false;
    szName[sizeof(szName) - 1] = '\0';
    return LookUp(szName, aAddr);
}

// Copies as much of aText as fits, with a terminator.
void CopyCut(std::string_view aText, char* aDst, size_t aSize) {
    const size_t nCopy = aText.copy(aDst, aSize - 1);
    aDst[nCopy] = '\0';
}

}  // namespace

bool transport_address_parse(const char* aUrl, char* aProto, int aProtoLen, char* aIp, int aIpLen, unsigned short* aPort) {
    if (!aUrl || !aProto || aProtoLen < 1 || !aIp || aIpLen < 1 || !aPort)
        return false;
    if (strnlen(aUrl, MAX_URL_LENGTH + 1) > MAX_URL_LENGTH)
        return false;
    const char* pMark = std::strstr(aUrl, "://");
    if (!pMark)
        return false;
    CopyCut({aUrl, static_cast<size_t>(pMark - aUrl)}, aProto, static_cast<size_t>(aProtoLen));

    const char* pHost = pMark + 3;
    const char* pColon = std::strchr(pHost, ':');
    if (!pColon)
        return false;
    char szHost[MAX_URL_LENGTH + 1] = "";
    CopyCut({pHost, static_cast<size_t>(pColon - pHost)}, szHost, sizeof(szHost));
    if (!is_ip_address(szHost)) {
        char szIp[INET_ADDRSTRLEN] = "";
        resolve_2_ip(szHost, szIp);
        if (!*szIp)
            return false;
        std::memcpy(szHost, szIp, sizeof(szIp));
    }
    CopyCut(szHost, aIp, static_cast<size_t>(aIpLen));

    if (!pColon[1])
        return false;
    *aPort = static_cast<unsigned short>(std::strtol(pColon + 1, nullptr, 10));
    return true;
}

bool is_ip_address(const char* aText) {
    if (!aText) {
        CM_ERROR_TRACE("is_ip_address: ip string is null");
        return false;
    }
    return aText[std::strspn(aText, "0123456789. \t")] == '\0';
}

void resolve_2_ip(const char* aHostName, char* aIpOut) {
    if (!aHostName || !aIpOut) {
        // Trace the buffer's address and not its content, which is not initialised yet.
        CM_ERROR_TRACE("resolve_2_ip: No host_name: " << aHostName << "; or ip_address: " << static_cast<const void*>(aIpOut)
                                                      << "; given");
        return;
    }
    in_addr addr{};
    if (!LookUp(aHostName, addr)) {
        CM_ERROR_TRACE("resolve_2_ip: can't resolve host_name: " << aHostName);
        return;
    }
    inet_ntop(AF_INET, &addr, aIpOut, INET_ADDRSTRLEN);
}

DWORD ip_2_id(const char* aIpOrHost) {
    char szText[128] = "";
    if (is_ip_address(aIpOrHost))
        CopyCut(aIpOrHost, szText, sizeof(szText));
    else
        resolve_2_ip(aIpOrHost, szText);
    int n[4] = {};
    if (std::sscanf(szText, "%d.%d.%d.%d", &n[0], &n[1], &n[2], &n[3]) < 1)
        return 0;
    DWORD dwId = 0;
    for (const int nOctet : n)
        dwId = dwId * 256 + static_cast<DWORD>(nOctet);
    return dwId;
}

const char* id_2_ip(unsigned long aId) {
    static char s_szText[4 * 4];
    const DWORD dwId = static_cast<DWORD>(aId);
    std::snprintf(s_szText, sizeof(s_szText), "%d.%d.%d.%d", dwId >> 24, (dwId >> 16) & 255, (dwId >> 8) & 255, dwId & 255);
    return s_szText;
}

const char* get_local_ip() {
    static char s_szText[256];
    if (!*s_szText) {
        in_addr addr{};  // stays 0.0.0.0 if the look-up fails
        LookUpOwnName(addr);
        inet_ntop(AF_INET, &addr, s_szText, sizeof(s_szText));
    }
    return s_szText;
}

const char* get_local_ip_address() {
    in_addr addr{};
    return LookUpOwnName(addr) ? inet_ntoa(addr) : "127.0.0.1";
}
