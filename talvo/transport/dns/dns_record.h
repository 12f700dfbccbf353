// The record of one host name.
#pragma once

#include <vector>

#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/transport/dns/dns_answer.h"

// The outcome of one look-up. It never changes after its creation, so any thread with a reference may read it.
class TALVO_API CCmDnsRecord : public CCmReferenceControlT<CCmMutexThread> {
public:
    // The outcome.
    enum EState {
        RESOLVED,  // there is at least one address, of either family
        FAILED     // there is none; see GetReason
    };

    // Not for applications.
    CCmDnsRecord(const CCmString& aName, talvo::CDnsAnswers aAnswers);

    // The requested name in lower case.
    const CCmString& GetName() const { return m_strName; }
    EState GetState() const { return m_Addresses.empty() ? FAILED : RESOLVED; }  // RESOLVED: there is an address

    // First the IPv6 addresses, then the IPv4 addresses, each in the order of the answer; empty if FAILED. Connectors order
    // them by the routes of this machine, see docs/names.md.
    const std::vector<talvo::CIpBytes>& GetAddresses() const { return m_Addresses; }
    // The first IPv4 address in network byte order, or 0xFFFFFFFF if there is none.
    CmDword GetFirstAddress() const;
    // The first IPv4 address, or else the first IPv6 address, or none if FAILED.
    talvo::CIpBytes GetFirstIp() const;
    // TRUE: the servers have not answered for one family yet, and later records of this name may have more addresses.
    CmBool IsPartial() const { return m_Answers.IsPending(); }

    // When the record expires, on the clock of CCmClock::GetTimeOfDayUsec.
    int64_t GetExpiryUsec() const { return m_Answers.GetExpiryUsec(); }
    // Seconds from now until the expiry, rounded up; 0: it has expired.
    CmDword GetTimeToLive() const;

    // For people; "" if RESOLVED.
    const CCmString& GetReason() const { return m_strReason; }
    // TRUE: FAILED because the name has no address. FALSE: no server gave a usable answer, or it is RESOLVED.
    CmBool IsNoSuchName() const { return !m_Answers.HasAddress() && m_Answers.GetFailure().IsDenied(); }

    // The answers that the record is made of.
    const talvo::CDnsAnswers& GetAnswers() const { return m_Answers; }

protected:
    ~CCmDnsRecord() override;

private:
    const CCmString m_strName;
    const talvo::CDnsAnswers m_Answers;
    const std::vector<talvo::CIpBytes> m_Addresses;
    const CCmString m_strReason;
};
