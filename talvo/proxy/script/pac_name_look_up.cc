#include "talvo/proxy/script/pac_name_look_up.h"

#include <utility>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/destination_order.h"
#include "talvo/transport/dns/dns_manager.h"

namespace talvo {

namespace {

constexpr time_t MOST_SECONDS = 2;
// Public addresses, to which nothing is sent: the route to them shows the address of this machine.
constexpr const char* INTERNET_IPV4 = "8.8.8.8";
constexpr const char* INTERNET_IPV6 = "2001:4860:4860::8888";

CCmString OwnAddressTowards(const char* aInternet) {
    CIpBytes destination;
    CIpBytes::Parse(aInternet, destination);
    return FindSource(destination).GetText();
}

CCmString OwnAddresses(char aKind) {
    const CCmString strIpv4 = OwnAddressTowards(INTERNET_IPV4);
    if (aKind == 'm')
        return strIpv4.empty() ? "127.0.0.1" : strIpv4;
    const CCmString strIpv6 = OwnAddressTowards(INTERNET_IPV6);
    return strIpv6 + (strIpv6.empty() || strIpv4.empty() ? "" : ";") + strIpv4;
}

CCmString AddressesOf(const CCmDnsRecord& aRecord, char aKind) {
    CCmString strAddresses;
    for (const CIpBytes& ip : aRecord.GetAddresses()) {
        if (aKind == '4' && ip.m_byFamily == 4)
            return ip.GetText();
        if (aKind == '*')
            strAddresses += (strAddresses.empty() ? "" : ";") + ip.GetText();
    }
    return strAddresses;
}

}  // namespace

BOOL CPacNameLookUp::IsKind(char aKind) { return HasName(aKind) || aKind == 'm' || aKind == 'M'; }

void CPacNameLookUp::Start(char aKind, const CCmString& aName) {
    Cancel();
    m_cKind = aKind;
    m_bWaits = TRUE;
    if (!HasName(aKind))
        return Answer_i(OwnAddresses(aKind));
    CCmDnsManager* pManager = CCmDnsManager::Instance();
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = pManager ? pManager->AsyncResolve(pRecord.ParaOut(), aName, this) : CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_ERROR_WOULD_BLOCK && m_Timer.Schedule(this, CCmTimeValue(MOST_SECONDS), 1) == CM_OK)
        return;
    Answer_i(rv == CM_OK ? AddressesOf(*pRecord, aKind) : "");
}

void CPacNameLookUp::OnObserve(const char*, void* aData) {
    if (!m_bWaits)
        return;
    CCmString strAddresses;
    WithMemory([&] { strAddresses = AddressesOf(*static_cast<CCmDnsRecord*>(aData), m_cKind); });
    Answer_i(strAddresses);
}

void CPacNameLookUp::OnTimer(CCmTimerWrapperID*) { Answer_i(""); }

void CPacNameLookUp::Answer_i(const CCmString& aAddresses) {
    Cancel();
    m_Sink.OnPacName(aAddresses);
}

void CPacNameLookUp::Cancel() {
    if (!std::exchange(m_bWaits, FALSE))
        return;
    m_Timer.Cancel();
    if (HasName(m_cKind) && CCmDnsManager::Instance())
        CCmDnsManager::Instance()->CancelResolve(this);
}

}  // namespace talvo
