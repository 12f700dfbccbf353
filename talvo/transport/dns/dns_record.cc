#include "talvo/transport/dns/dns_record.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"

namespace {

CCmLiveCounter s_Live("CCmDnsRecord");

constexpr int64_t SECOND = 1000000;

}  // namespace

CCmDnsRecord::CCmDnsRecord(const CCmString& aName, std::vector<DWORD> aAddresses, int64_t aExpiryUsec, const CCmString& aReason,
                           BOOL aNoSuchName)
    : m_strName(aName),
      m_Addresses(std::move(aAddresses)),
      m_llExpiryUsec(aExpiryUsec),
      m_strReason(aReason),
      m_bNoSuchName(aNoSuchName) {
    ++s_Live;
}

CCmDnsRecord::~CCmDnsRecord() { --s_Live; }

DWORD CCmDnsRecord::GetFirstAddress() const { return m_Addresses.empty() ? 0xFFFFFFFF : m_Addresses.front(); }

DWORD CCmDnsRecord::GetTimeToLive() const {
    const int64_t llLeft = std::max<int64_t>(m_llExpiryUsec - CCmClock::GetTimeOfDayUsec(), 0);
    return static_cast<DWORD>((llLeft + SECOND - 1) / SECOND);
}
