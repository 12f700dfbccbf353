#include "talvo/transport/dns/dns_answer.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "talvo/base/clock.h"

namespace talvo {

namespace {

int64_t InSeconds(DWORD aSeconds) { return CCmClock::GetTimeOfDayUsec() + int64_t{aSeconds} * 1000000; }

int64_t ExpiryOf(const CDnsAnswer& aAnswer, const CDnsAnswer& aOther) {
    if (aAnswer.m_State == EDnsAnswer::UNASKED)
        return std::numeric_limits<int64_t>::max();
    return aAnswer.IsDenied() && aOther.IsFound() ? aOther.m_llExpiryUsec : aAnswer.m_llExpiryUsec;
}

}  // namespace

CDnsAnswer CDnsAnswer::Found(std::vector<CIpBytes> aAddresses, DWORD aTtl) {
    if (aAddresses.size() > MAX_ADDRESSES)
        aAddresses.resize(MAX_ADDRESSES);
    return {EDnsAnswer::FOUND, std::move(aAddresses), InSeconds(std::clamp(aTtl, MIN_TTL, MAX_TTL)), {}};
}

CDnsAnswer CDnsAnswer::Without(EDnsAnswer aState, const CCmString& aReason) {
    return {aState, {}, InSeconds(FAILURE_TTL), aReason};
}

CDnsAnswers CDnsAnswers::Of(const std::vector<CIpBytes>& aAddresses, DWORD aTtl) {
    CDnsAnswers answers;
    for (const BYTE byFamily : {BYTE{4}, BYTE{6}}) {
        std::vector<CIpBytes> addresses;
        std::copy_if(aAddresses.begin(), aAddresses.end(), std::back_inserter(addresses),
                     [&](const CIpBytes& ip) { return ip.m_byFamily == byFamily; });
        if (!addresses.empty())
            answers.Of(byFamily) = CDnsAnswer::Found(std::move(addresses), aTtl);
    }
    return answers;
}

const CDnsAnswer& CDnsAnswers::GetFailure() const {
    for (const EDnsAnswer state : {EDnsAnswer::FAILED, EDnsAnswer::NO_RECORD, EDnsAnswer::NO_NAME}) {
        if (m_Ipv4.m_State == state)
            return m_Ipv4;
        if (m_Ipv6.m_State == state)
            return m_Ipv6;
    }
    return m_Ipv4;
}

int64_t CDnsAnswers::GetExpiryUsec() const { return std::min(ExpiryOf(m_Ipv4, m_Ipv6), ExpiryOf(m_Ipv6, m_Ipv4)); }

}  // namespace talvo
