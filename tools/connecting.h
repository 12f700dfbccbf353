// Makes the connectors of clients.
#pragma once

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/console.h"

namespace tool {

constexpr long CONNECT_SECONDS = 10;  // the time limit of a client

// aConnector (out): of the type of the arguments, with their settings of TLS.
CmResult MakeConnector(const Arguments& aArguments, CCmRefPtrT<ICmConnector>& aConnector);

// Likewise, and connects it: to m_Addr of the arguments, from their m_AddrLocal, or to the endpoints of a race.
CmResult StartConnect(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, CCmRefPtrT<ICmConnector>& aConnector);

// With --proxy: a line that names the server that aTransport, which is connected, uses. With -v: its addresses and its TLS.
void ReportConnection(const Arguments& aArguments, ICmTransport& aTransport, Console& aConsole);

}  // namespace tool
