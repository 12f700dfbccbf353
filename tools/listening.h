// Starts and announces the listening of a server.
#pragma once

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/console.h"

namespace tool {

// Creates an acceptor of the arguments' type and address that passes connections to aSink. aListening (out): its address.
CmResult Listen(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, CCmRefPtrT<ICmAcceptor>& aAcceptor,
                CCmInetAddr& aListening);

// The same, and announces it. false: it cannot listen, which was reported.
bool StartListening(const Arguments& aArguments, ICmAcceptorConnectorSink* aSink, Console& aConsole,
                    CCmRefPtrT<ICmAcceptor>& aAcceptor);

// Prints "listening on ADDRESS:PORT" or the path, and "ready" (as JSON: one object with address and port; a path has none).
void AnnounceListening(const CCmInetAddr& aAddr, Console& aConsole);

// Reports that it cannot listen, with the cause.
void ComplainOfListening(const CCmInetAddr& aAddr, const CCmFailure& aFailure, CmResult aReason, Console& aConsole);

}  // namespace tool
