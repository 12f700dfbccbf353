// Connects a datagram socket.
#pragma once

#include <vector>

#include "talvo/event/home_reactor.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/dns/name_lookup.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/udp/transport_udp.h"

// Makes a TransportType over a socket that it binds to the local address and connects. This sends no data to the peer, so it is
// done at once. The report comes when the reactor finds the socket writable, never from inside Connect. A host name is looked
// up first; the first of its addresses with a route from this machine is used.
template <class TransportType>
class CCmConnectorUdpT : public ACmConnectorInternal,
                         private ACmEventHandler,
                         private ICmTimerHandler,
                         private talvo::INameUser {
public:
    explicit CCmConnectorUdpT(const CCmConnectorSettings& aSettings)
        : m_pReactor(aSettings.m_pReactor), m_Upper(*aSettings.m_pUpper) {}
    ~CCmConnectorUdpT() override { CCmConnectorUdpT::Close(); }

    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker

    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override;
    CmResult SetOption(DWORD aCommand, void* aArg) override {
        return aCommand == CM_OPT_TRANSPORT_READ_SIZE ? CM_ERROR_INVALID_ARG : m_Sockets.SetOption(aCommand, aArg);
    }
    CmResult GetOption(DWORD aCommand, void* aArg) override { return m_Sockets.GetOption(aCommand, aArg); }

private:
    int ConnectToName_i(const CCmString& aName);
    int ConnectToAny_i(const std::vector<DWORD>& aAddresses);
    int Connect_i();
    int NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason);
    void Report_i(CmResult aReason);

    HANDLE GetHandle() const override;
    int OnOutput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // a name has no address
    void OnNameKnown(const CCmDnsRecord& aRecord) override;

    const talvo::CHomeReactor m_pReactor;
    ACmConnectorUpper& m_Upper;
    talvo::CNameLookup m_Lookup{*this};
    CCmInetAddr m_AddrPeer;
    CCmInetAddr m_AddrLocal;                 // CCmInetAddr::s_InetAddrAny: not given
    talvo::CSocketSettings m_Sockets;        // the user's values
    CCmRefPtrT<TransportType> m_pTransport;  // connected, to be reported
    BOOL m_bTimerArmed = FALSE;
};

extern template class TALVO_API CCmConnectorUdpT<CCmTransportUdp>;
using CCmConnectorUdp = CCmConnectorUdpT<CCmTransportUdp>;
