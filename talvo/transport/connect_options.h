// The options of connectors and acceptors.
#pragma once

#include "talvo/transport/transport_interface.h"

namespace talvo {

// Implements ICmConnectOptions: the failure is the object's, and SetOption_i handles each other command.
class TALVO_API CConnectOptions : public ICmConnectOptions {
public:
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;

protected:
    // Of the last attempt, or of the last StartListen.
    virtual CCmFailure GetFailure() const = 0;

    // aArg is not null. CM_ERROR_INVALID_ARG: an unknown command, or an invalid value.
    virtual CmResult SetOption_i(CmDword aCommand, void* aArg);
    virtual CmResult GetOption_i(CmDword aCommand, void* aArg);
};

// The failure of a connector or acceptor below; CM_FAILURE_NONE if it has no options.
TALVO_API CCmFailure GetConnectFailure(ICmAcceptorConnectorId* aId);

// The other options of a connector or acceptor below. CM_ERROR_INVALID_ARG also if it has none.
TALVO_API CmResult SetConnectOption(ICmAcceptorConnectorId* aId, CmDword aCommand, void* aArg);
TALVO_API CmResult GetConnectOption(ICmAcceptorConnectorId* aId, CmDword aCommand, void* aArg);

}  // namespace talvo
