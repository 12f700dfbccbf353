// Connects a datagram socket.
#pragma once

#include <vector>

#include "talvo/transport/resolving_connector.h"
#include "talvo/transport/udp/transport_udp.h"

// Makes a TransportType over a socket that it binds to the local address and connects. This sends no data to the peer, so it is
// done at once. The report comes when the reactor finds the socket writable, never from inside Connect. A host name is looked
// up first; the first of its addresses with a route from this machine is used. IPv4 addresses come first: a datagram socket
// connects to a host that is not there, so no other address would be tried.
template <class TransportType>
class CCmConnectorUdpT : public talvo::CResolvingConnector, private ACmEventHandler {
public:
    // aSettings: as a maker gets them.
    explicit CCmConnectorUdpT(const CCmConnectorSettings& aSettings)
        : CResolvingConnector(aSettings, "CCmConnectorUdpT", CM_FALSE) {}
    ~CCmConnectorUdpT() override { CCmConnectorUdpT::Close(); }

    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker

    void Close() override;
    CmResult SetOption(CmDword aCommand, void* aArg) override {
        return aCommand == CM_OPT_TRANSPORT_READ_SIZE ? CM_ERROR_INVALID_ARG : CResolvingConnector::SetOption(aCommand, aArg);
    }

private:
    int ConnectTo_i(std::vector<CCmInetAddr> aAddrs) override;
    int Connect_i();

    CmHandle GetHandle() const override;
    int OnOutput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;
};

extern template class TALVO_API CCmConnectorUdpT<CCmTransportUdp>;
// The connector of UDP.
using CCmConnectorUdp = CCmConnectorUdpT<CCmTransportUdp>;
