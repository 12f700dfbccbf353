// The options that a connection sets again on each new transport.
#pragma once

#include "talvo/base/export.h"
#include "talvo/transport/rest_option.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// A value each for CM_OPT_TRANSPORT_KEEPALIVE, _SNDBUF, _RCVBUF, _TOS and _READ_SIZE, and OPT_REST_BEFORE_FAILURE. One thread.
class TALVO_API CKeptOptions {
public:
    static CmBool IsKept(CmDword aCommand) { return Find_i(aCommand) < COUNT; }

    // For a command that is kept.
    void Keep(CmDword aCommand, CmDword aValue);
    // FALSE: there is no value.
    CmBool Get(CmDword aCommand, CmDword& aValue) const;
    // A refusal is traced by the transport.
    void Apply(ICmTransport& aTransport);

private:
    static constexpr CmDword COMMANDS[] = {CM_OPT_TRANSPORT_KEEPALIVE, CM_OPT_TRANSPORT_SNDBUF,    CM_OPT_TRANSPORT_RCVBUF,
                                           CM_OPT_TRANSPORT_TOS,       CM_OPT_TRANSPORT_READ_SIZE, OPT_REST_BEFORE_FAILURE};
    static constexpr CmDword COUNT = sizeof COMMANDS / sizeof *COMMANDS;

    static CmDword Find_i(CmDword aCommand);

    CmDword m_Values[COUNT] = {};
    bool m_bSet[COUNT] = {};
};

}  // namespace talvo
