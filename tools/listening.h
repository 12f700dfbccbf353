// How a server of this program begins to listen and says so.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/endpoint.h"

namespace tool {

// Creates an acceptor for aType that hands connections to aSink, and announces it. false: it cannot listen, which has been
// reported.
bool StartListening(const Endpoint& aEndpoint, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor, DWORD aType);

// Prints "listening on ADDRESS:PORT" and "ready" (as JSON: one object with both).
void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole);

// Reports that it cannot, and why.
void ComplainOfListening(const Endpoint& aEndpoint, const CCmFailure& aFailure, CmResult aReason, Console& aConsole);

}  // namespace tool
