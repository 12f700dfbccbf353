// Sends that do not consume a message block.
#pragma once

#include "talvo/transport/transport_interface.h"

// Sends aLength bytes at aData, which may be used again when the call has returned; what has to wait is copied. Results as
// ICmTransport::SendData. aTaken, which may be null, gets how many bytes were taken: all with CM_OK; with CM_ERROR_PARTIAL_DATA
// the caller sends those behind them after the OnSend that follows. A message, a datagram and a proxy take all or none.
TALVO_API CmResult cm_send_bytes(ICmTransport& aTransport, const void* aData, DWORD aLength, DWORD* aTaken = nullptr);

// Sends aData without consuming it, so that the same chain can go to many transports; the payload that a data block owns is
// shared and not copied. Results as ICmTransport::SendData, and CM_ERROR_OUT_OF_MEMORY. aTaken as above: after
// CM_ERROR_PARTIAL_DATA the rest begins so many bytes into the chain.
TALVO_API CmResult cm_send_shared(ICmTransport& aTransport, const CCmMessageBlock& aData, DWORD* aTaken = nullptr);
