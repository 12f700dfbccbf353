// The outcome of a look-up for each family of addresses.
#pragma once

#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/ip_bytes.h"

namespace talvo {

enum class EDnsAnswer : CmByte {
    UNASKED,    // the family is not wanted
    PENDING,    // no answer yet
    FOUND,      // there are addresses
    NO_RECORD,  // the name has no address of this family
    NO_NAME,    // a server, or the rules for names, exclude the name
    FAILED      // no server gave a usable answer
};

// The addresses of one family, from the hosts file or a server, or the reason why there are none.
struct TALVO_API CDnsAnswer {
    static constexpr size_t MAX_ADDRESSES = 256;  // further ones are dropped
    static constexpr CmDword MIN_TTL = 1;         // seconds
    static constexpr CmDword MAX_TTL = 3600;
    static constexpr CmDword FAILURE_TTL = 5;

    // Answers that have just come. The time to live of addresses, in seconds, is clamped; every other answer has FAILURE_TTL.
    static CDnsAnswer Found(std::vector<CIpBytes> aAddresses, CmDword aTtl);
    static CDnsAnswer Without(EDnsAnswer aState, const CCmString& aReason);

    CmBool IsFound() const { return m_State == EDnsAnswer::FOUND; }
    // TRUE: a server, or the rules for names, exclude an address.
    CmBool IsDenied() const { return m_State == EDnsAnswer::NO_RECORD || m_State == EDnsAnswer::NO_NAME; }

    EDnsAnswer m_State = EDnsAnswer::UNASKED;
    std::vector<CIpBytes> m_Addresses;
    int64_t m_llExpiryUsec = 0;  // on the clock of CCmClock::GetTimeOfDayUsec
    CCmString m_strReason;       // for people; "" if there are addresses
};

// The answers of both families. They come from one full name, so they belong to one host.
struct TALVO_API CDnsAnswers {
    // Addresses of either family, which have just come. A family without an address counts as not wanted.
    static CDnsAnswers Of(const std::vector<CIpBytes>& aAddresses, CmDword aTtl);

    CDnsAnswer& Of(CmByte aFamily) { return aFamily == 4 ? m_Ipv4 : m_Ipv6; }
    CmBool HasAddress() const { return m_Ipv4.IsFound() || m_Ipv6.IsFound(); }
    CmBool IsPending() const { return m_Ipv4.m_State == EDnsAnswer::PENDING || m_Ipv6.m_State == EDnsAnswer::PENDING; }
    // The more telling answer of a look-up without an address: that no server helped, then that the name has no address.
    const CDnsAnswer& GetFailure() const;
    // When the first answer expires. The denial of one family lives as long as the addresses of the other.
    int64_t GetExpiryUsec() const;

    CDnsAnswer m_Ipv4;
    CDnsAnswer m_Ipv6;
    CCmString m_strFound;  // the full name that has the addresses: the requested one, perhaps in a search domain
};

}  // namespace talvo
