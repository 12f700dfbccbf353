// Starts and announces the listening of a server.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/endpoint.h"

namespace tool {

// Creates an acceptor of aType that passes connections to aSink, and announces it. false: it cannot listen, which was reported.
bool StartListening(const CCmInetAddr& aAddr, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor, DWORD aType);

// Prints "listening on ADDRESS:PORT" or the path, and "ready" (as JSON: one object with address and port; a path has none).
void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole);

// Reports that it cannot listen, with the cause.
void ComplainOfListening(const CCmInetAddr& aAddr, const CCmFailure& aFailure, CmResult aReason, Console& aConsole);

}  // namespace tool
