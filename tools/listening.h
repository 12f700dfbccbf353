// How a server of this program begins to listen and says so.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/endpoint.h"

namespace tool {

// Creates an acceptor for aType that hands connections to aSink, and prints "listening on ADDRESS:PORT" and "ready" (as JSON:
// one object with both). false: it cannot listen, which has been reported.
bool StartListening(const Endpoint& aEndpoint, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor, DWORD aType);

}  // namespace tool
