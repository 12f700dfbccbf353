// Opens a TCP connection.
#pragma once

#include <vector>

#include "talvo/transport/resolving_connector.h"
#include "talvo/transport/tcp/connect_race.h"
#include "talvo/transport/tcp/transport_tcp.h"

// Makes a TransportType over a socket that it connects. A host name is looked up first; of several addresses the first to
// connect is used, see CConnectRaceT. An immediate connection is reported from a timer, never from inside Connect.
template <class TransportType>
class CCmConnectorTcpT : public talvo::CResolvingConnector, private talvo::CConnectRaceT<TransportType>::IUser {
public:
    // aSettings: as a maker gets them.
    explicit CCmConnectorTcpT(const CCmConnectorSettings& aSettings)
        : CResolvingConnector(aSettings, "CCmConnectorTcpT", CM_TRUE),
          m_Race(aSettings.m_pReactor, *this, aSettings.m_pHandshakes) {}

    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker

    void Close() override;

private:
    int ConnectTo_i(std::vector<CCmInetAddr> aAddrs) override;
    void OnRaceDone(CCmRefPtrT<TransportType> aTransport) override;

    talvo::CConnectRaceT<TransportType> m_Race;
};

extern template class TALVO_API CCmConnectorTcpT<CCmTransportTcp>;
// The connector of TCP.
using CCmConnectorTcp = CCmConnectorTcpT<CCmTransportTcp>;
