#include "talvo/transport/dns/dns_settings.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/config.h"

namespace talvo {

namespace {

constexpr const char* SECTION = "Dns";
constexpr int64_t LOOK_INTERVAL_USEC = 1000000;

DWORD ReadNumber(const char* aKey, DWORD aDefault, DWORD aMax) {
    return std::clamp<DWORD>(get_uint32_param(SECTION, aKey, aDefault), 1, aMax);
}

BOOL ReachesFurtherThanItsLink(const ifaddrs& aAddress) {
    if (!aAddress.ifa_addr || aAddress.ifa_addr->sa_family != AF_INET6 || !(aAddress.ifa_flags & IFF_UP))
        return FALSE;
    const in6_addr& ip = reinterpret_cast<const sockaddr_in6*>(aAddress.ifa_addr)->sin6_addr;
    return !IN6_IS_ADDR_LOOPBACK(&ip) && !IN6_IS_ADDR_LINKLOCAL(&ip);
}

}  // namespace

BOOL HasIpv6() {
    static std::atomic<BOOL> s_bLast{FALSE};  // the answer while there are no descriptors or memory to find it
    ifaddrs* pFirst = nullptr;
    if (getifaddrs(&pFirst) != 0)
        return s_bLast;
    BOOL bFound = FALSE;
    for (const ifaddrs* p = pFirst; p && !bFound; p = p->ifa_next)
        bFound = ReachesFurtherThanItsLink(*p);
    freeifaddrs(pFirst);
    return s_bLast = bFound;
}

CDnsSettings CDnsSettings::Read() {
    const CCmString strFamily = get_string_param(SECTION, "AddressFamily", "both");
    return {get_string_param(SECTION, "Servers", ""),
            get_string_param(SECTION, "ResolverFile", "/etc/resolv.conf"),
            get_string_param(SECTION, "HostsFile", "/etc/hosts"),
            ReadNumber("TimeoutMs", 2000, 60000),
            ReadNumber("Tries", 3, 10),
            strFamily != "6",
            strFamily != "4",
            HasIpv6()};
}

BOOL CDnsSettings::Allows(const CIpBytes& aIp) const {
    if (aIp.m_byFamily == 4)
        return m_bIpv4;
    return aIp == CIpBytes::OfIpv6(in6addr_loopback) ? m_bIpv6 : AsksForIpv6();
}

CDnsWatch::CFileState CDnsWatch::CFileState::Of(const CCmString& aPath) {
    struct stat status {};
    if (stat(aPath.c_str(), &status) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_size, int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

void CDnsWatch::TakeNote() {
    CState state{CDnsSettings::Read(), {}, {}};
    state.m_ResolverFile = CFileState::Of(state.m_Settings.m_strResolverFile);
    state.m_HostsFile = CFileState::Of(state.m_Settings.m_strHostsFile);
    m_State = std::move(state);
    m_bLooked = TRUE;
    m_llNextLookUsec = CCmClock::GetTimeOfDayUsec() + LOOK_INTERVAL_USEC;
}

BOOL CDnsWatch::HasChanged() {
    if (m_bLooked && CCmClock::GetTimeOfDayUsec() < m_llNextLookUsec)
        return FALSE;
    const BOOL bFirst = !m_bLooked;
    const CState before = m_State;
    TakeNote();
    return !bFirst && !(m_State == before);
}

}  // namespace talvo
