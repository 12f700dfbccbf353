#include "talvo/transport/dns/dns_record.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"

namespace {

CCmLiveCounter s_Live("CCmDnsRecord");

constexpr int64_t SECOND = 1000000;

std::vector<talvo::CIpBytes> AddressesOf(const talvo::CDnsAnswers& aAnswers) {
    std::vector<talvo::CIpBytes> addresses = aAnswers.m_Ipv6.m_Addresses;
    addresses.insert(addresses.end(), aAnswers.m_Ipv4.m_Addresses.begin(), aAnswers.m_Ipv4.m_Addresses.end());
    return addresses;
}

}  // namespace

CCmDnsRecord::CCmDnsRecord(const CCmString& aName, talvo::CDnsAnswers aAnswers)
    : m_strName(aName),
      m_Answers(std::move(aAnswers)),
      m_Addresses(AddressesOf(m_Answers)),
      m_strReason(m_Answers.HasAddress() ? CCmString() : m_Answers.GetFailure().m_strReason) {
    ++s_Live;
}

CCmDnsRecord::~CCmDnsRecord() { --s_Live; }

DWORD CCmDnsRecord::GetFirstAddress() const {
    return m_Answers.m_Ipv4.IsFound() ? m_Answers.m_Ipv4.m_Addresses.front().GetIpv4() : 0xFFFFFFFF;
}

talvo::CIpBytes CCmDnsRecord::GetFirstIp() const {
    if (m_Answers.m_Ipv4.IsFound())
        return m_Answers.m_Ipv4.m_Addresses.front();
    return m_Addresses.empty() ? talvo::CIpBytes() : m_Addresses.front();
}

DWORD CCmDnsRecord::GetTimeToLive() const {
    const int64_t llLeft = std::max<int64_t>(GetExpiryUsec() - CCmClock::GetTimeOfDayUsec(), 0);
    return static_cast<DWORD>((llLeft + SECOND - 1) / SECOND);
}
