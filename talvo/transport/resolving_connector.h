// The common start of connectors over sockets: the peer's addresses.
#pragma once

#include <vector>

#include "talvo/event/home_reactor.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/dns/name_lookup.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/transport_base.h"

namespace talvo {

// Takes an address, or a host name that it looks up first, and gives the addresses to the derived connector. A name without an
// address is reported from a timer, never from inside Connect.
class TALVO_API CResolvingConnector : public ACmConnectorInternal, private ICmTimerHandler, private INameUser {
public:
    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    // Derived connectors also stop their own work, here and in their destructors.
    void Close() override;
    CmResult SetOption(CmDword aCommand, void* aArg) override { return m_Sockets.SetOption(aCommand, aArg); }
    CmResult GetOption(CmDword aCommand, void* aArg) override { return m_Sockets.GetOption(aCommand, aArg); }

protected:
    // aClass: the connector's name in the trace. aEarly: ConnectTo_i can begin with the first addresses of a name.
    CResolvingConnector(const CCmConnectorSettings& aSettings, const char* aClass, CmBool aEarly)
        : m_pReactor(aSettings.m_pReactor), m_pClass(aClass), m_Upper(*aSettings.m_pUpper), m_Lookup(*this, aEarly) {}
    ~CResolvingConnector() override { CResolvingConnector::Close(); }

    // Connects to one of m_AddrPeer's addresses, which are in the order to try. Results as Connect; before -1 it sets
    // m_Failure. Called again with more addresses while the attempt has no connection and the servers answer; the earlier ones
    // are among them. May throw std::bad_alloc: the attempt is closed then.
    virtual int ConnectTo_i(std::vector<CCmInetAddr> aAddrs) = 0;

    // Reports from a timer; CM_OK with m_pTransport. Results as Connect.
    int ReportLater_i(CmResult aReason);
    // The last step of an attempt: the upper connector may delete this one.
    void Report_i(CmResult aReason);
    // Reports m_Failure, unless more addresses may come.
    void ReportFailure_i();
    // A connection needs no more addresses.
    void StopLookUp_i() { m_Lookup.Cancel(); }

    const CHomeReactor m_pReactor;
    CCmInetAddr m_AddrPeer;                     // perhaps with a name
    CCmInetAddr m_AddrLocal;                    // CCmInetAddr::s_InetAddrAny: not given
    CSocketSettings m_Sockets;                  // the user's values
    CCmRefPtrT<CCmTransportBase> m_pTransport;  // connected, to be reported

private:
    int ConnectToName_i(const CCmString& aName);
    int ConnectToRecord_i(const CCmDnsRecord& aRecord);
    void NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason);
    template <class Callable>
    int WithMemory_i(const CCmInetAddr& aAddr, Callable aConnect);

    void OnNameKnown(const CCmDnsRecord& aRecord) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    const char* const m_pClass;
    ACmConnectorUpper& m_Upper;
    CNameLookup m_Lookup;
    CmBool m_bTried = CM_FALSE;  // an address of the name
    CmBool m_bTimerArmed = CM_FALSE;
    CmResult m_LaterReason = CM_OK;  // the reason that the timer reports
};

}  // namespace talvo
