// The connector of a base type.
#pragma once

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// Whether there is one: a base type with a maker, or 0x8001. Any thread. CM_ERROR_INVALID_ARG: no such type.
// CM_ERROR_NOT_IMPLEMENTED: it has no connectors.
TALVO_API CmResult JudgeBaseConnector(DWORD aBase);

// Network thread. 0x8001 is a race of CM_TRANSPORT_TYPE_TCP and then CM_TRANSPORT_TYPE_PROXY, if that is offered. aConnector
// (out) is unchanged unless CM_OK. Other results: as above, CM_ERROR_NOT_INITIALIZED: there is no network thread,
// CM_ERROR_OUT_OF_MEMORY.
TALVO_API CmResult MakeBaseConnector(DWORD aBase, CCmRefPtrT<ICmConnector>& aConnector);

}  // namespace talvo
