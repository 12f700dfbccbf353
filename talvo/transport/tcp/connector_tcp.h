// Opens a TCP connection.
#pragma once

#include <vector>

#include "talvo/event/home_reactor.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/dns/name_lookup.h"
#include "talvo/transport/tcp/connect_race.h"
#include "talvo/transport/tcp/transport_tcp.h"

// Makes a TransportType over a socket that it connects. A host name is looked up first; of several addresses the first to
// connect is used, see CConnectRaceT. An immediate connection, and a name without an address, are reported from a timer, never
// from inside Connect.
template <class TransportType>
class CCmConnectorTcpT : public ACmConnectorInternal,
                         private ICmTimerHandler,
                         private talvo::INameUser,
                         private talvo::CConnectRaceT<TransportType>::IUser {
public:
    explicit CCmConnectorTcpT(const CCmConnectorSettings& aSettings)
        : m_pReactor(aSettings.m_pReactor), m_Upper(*aSettings.m_pUpper), m_Race(m_pReactor, *this, aSettings.m_pHandshakes) {}
    ~CCmConnectorTcpT() override;

    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker

    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override;
    CmResult SetOption(DWORD aCommand, void* aArg) override { return m_Sockets.SetOption(aCommand, aArg); }
    CmResult GetOption(DWORD aCommand, void* aArg) override { return m_Sockets.GetOption(aCommand, aArg); }

private:
    int ConnectToName_i(const CCmString& aName);
    int ConnectTo_i(const std::vector<DWORD>& aAddresses);
    void NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason);
    template <class Callable>
    int WithMemory_i(Callable aConnect);
    CmResult FailureResult_i() const;
    int ReportLater_i(CmResult aReason);
    void Report_i(CmResult aReason);

    void OnNameKnown(const CCmDnsRecord& aRecord) override;
    void OnRaceDone(CCmRefPtrT<TransportType> aTransport) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    const talvo::CHomeReactor m_pReactor;
    ACmConnectorUpper& m_Upper;
    CCmInetAddr m_AddrPeer;                      // perhaps with a name
    CCmInetAddr m_AddrLocal;                     // CCmInetAddr::s_InetAddrAny: not given
    talvo::CSocketSettings m_Sockets;            // the user's values
    talvo::CNameLookup m_Lookup{*this};          // runs first,
    talvo::CConnectRaceT<TransportType> m_Race;  // then this,
    CCmRefPtrT<TransportType> m_pTransport;      // which gives this
    BOOL m_bTimerArmed = FALSE;
    CmResult m_LaterReason = CM_OK;  // the reason that the timer reports
};

extern template class TALVO_API CCmConnectorTcpT<CCmTransportTcp>;
using CCmConnectorTcp = CCmConnectorTcpT<CCmTransportTcp>;
