// What is known of one host name.
#pragma once

#include <vector>

#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"

// The outcome of one look-up. Never changes once it is made, so any thread may read it for as long as it holds a reference.
class TALVO_API CCmDnsRecord : public CCmReferenceControlT<CCmMutexThread> {
public:
    enum EState {
        RESOLVED,  // there is at least one address
        FAILED     // there is none, and GetReason says why
    };

    // A record of state RESOLVED with addresses, else FAILED. aExpiryUsec: on the clock of CCmClock::GetTimeOfDayUsec.
    CCmDnsRecord(const CCmString& aName, std::vector<DWORD> aAddresses, int64_t aExpiryUsec, const CCmString& aReason,
                 BOOL aNoSuchName = FALSE);

    // As it was asked for, in lower case.
    const CCmString& GetName() const { return m_strName; }
    EState GetState() const { return m_Addresses.empty() ? FAILED : RESOLVED; }

    // IPv4 addresses in network byte order, in the order of the answer; empty when FAILED.
    const std::vector<DWORD>& GetAddresses() const { return m_Addresses; }
    // The first address, or 0xFFFFFFFF when FAILED.
    DWORD GetFirstAddress() const;

    // When the cache forgets it, on the clock of CCmClock::GetTimeOfDayUsec.
    int64_t GetExpiryUsec() const { return m_llExpiryUsec; }
    // Seconds from now until then, rounded up; 0: it is over.
    DWORD GetTimeToLive() const;

    // For people; "" when RESOLVED.
    const CCmString& GetReason() const { return m_strReason; }
    // FAILED because the name has no address; otherwise no server gave an answer that could be used.
    BOOL IsNoSuchName() const { return m_bNoSuchName; }

protected:
    ~CCmDnsRecord() override;

private:
    const CCmString m_strName;
    const std::vector<DWORD> m_Addresses;
    const int64_t m_llExpiryUsec;
    const CCmString m_strReason;
    const BOOL m_bNoSuchName;
};
