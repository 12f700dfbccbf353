// Addresses that guess channels.
#pragma once

#include <list>
#include <map>

#include "talvo/base/export.h"
#include "talvo/base/ip_bytes.h"

namespace talvo {

// Counts the refused re-opens of existing channels by address, for the plain form, whose 16 bits can be guessed. After 10
// within 60 s the address is blocked for 60 s. Keeps 4,096 addresses, and forgets the oldest. Times are microseconds of a clock
// that does not go back. One thread.
class TALVO_API CReopenLimiter {
public:
    CmBool IsBlocked(const CIpBytes& aAddr, int64_t aNow) const;
    void OnRefused(const CIpBytes& aAddr, int64_t aNow);

private:
    struct CEntry {
        int64_t m_llSince = 0;  // of the count
        int64_t m_llBlockedUntil = 0;
        CmDword m_dwRefused = 0;
        std::list<CIpBytes>::iterator m_Age;
    };

    std::map<CIpBytes, CEntry> m_Entries;
    std::list<CIpBytes> m_Ages;  // the oldest first
};

}  // namespace talvo
