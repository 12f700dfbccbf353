// Sends that do not consume a message block.
#pragma once

#include "talvo/transport/transport_interface.h"

// Sends aLength bytes at aData, which may be reused after the return; bytes that must wait are copied. Results as
// ICmTransport::SendData. aTaken (out; may be null): the number of bytes taken, all with CM_OK. After CM_ERROR_PARTIAL_DATA the
// caller sends the rest after the OnSend that follows. A message connection, a datagram transport and a proxy take all or none.
TALVO_API CmResult cm_send_bytes(ICmTransport& aTransport, const void* aData, CmDword aLength, CmDword* aTaken = nullptr);

// Sends aData without consuming it, so that the same chain can go to many transports. Payload owned by a data block is shared
// and not copied. Results as ICmTransport::SendData, and CM_ERROR_OUT_OF_MEMORY. aTaken (out) as above: after
// CM_ERROR_PARTIAL_DATA the rest starts at that offset in the chain.
TALVO_API CmResult cm_send_shared(ICmTransport& aTransport, const CCmMessageBlock& aData, CmDword* aTaken = nullptr);
