// Makes the connectors and acceptors of a connection type.
#pragma once

#include "talvo/transport/transport_interface.h"

namespace talvo {

// See the operations of CCmConnectionManager with the same names. These are not its members: a proxy may call them during the
// manager's destruction, when Instance() would make a new one.
CmResult CreateClient(DWORD aType, ICmConnector*& aConnector);
CmResult CreateRace(ICmDetectionConnector*& aConnector);
CmResult CreateServer(DWORD aType, ICmAcceptor*& aAcceptor);
CmResult CreateClient_i(DWORD aType, ICmConnector*& aConnector);
CmResult CreateServer_i(DWORD aType, ICmAcceptor*& aAcceptor);
CmResult CreateCsClient(DWORD& aType, ICmConnector*& aConnector);
CmResult CreateCsServer(DWORD& aType, ICmAcceptor*& aAcceptor);

}  // namespace talvo
