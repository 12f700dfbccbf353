// Starts and announces the listening of a server.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/endpoint.h"

namespace tool {

// Creates an acceptor of aType that passes connections to aSink, and announces it. false: it cannot listen, which was reported.
bool StartListening(const Endpoint& aEndpoint, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor, DWORD aType);

// Prints "listening on ADDRESS:PORT" and "ready" (as JSON: one object with both).
void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole);

// Reports that it cannot listen, with the cause.
void ComplainOfListening(const Endpoint& aEndpoint, const CCmFailure& aFailure, CmResult aReason, Console& aConsole);

}  // namespace tool
