// The options of connectors and acceptors.
#pragma once

#include "talvo/transport/transport_interface.h"

namespace talvo {

// Answers ICmConnectOptions from what the object knows.
class TALVO_API CConnectOptions : public ICmConnectOptions {
public:
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

protected:
    // Of the last attempt, or of the last StartListen.
    virtual CCmFailure GetFailure() const = 0;
};

// That of a connector or acceptor below; none if it has no options.
TALVO_API CCmFailure GetConnectFailure(ICmAcceptorConnectorId* aId);

}  // namespace talvo
