#include "talvo/transport/dns/dns_settings.h"

#include <sys/stat.h>

#include <algorithm>
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

}  // namespace

CDnsSettings CDnsSettings::Read() {
    return {get_string_param(SECTION, "Servers", ""), get_string_param(SECTION, "ResolverFile", "/etc/resolv.conf"),
            get_string_param(SECTION, "HostsFile", "/etc/hosts"), ReadNumber("TimeoutMs", 2000, 60000),
            ReadNumber("Tries", 3, 10)};
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
