// A message of a forward session, ready to be sent over any connection.
#pragma once

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/session/forward_session.h"

namespace talvo {

//  0      1               5
//  | type | payload length | payload ...       big-endian
//  |      '- a frame of a length-prefixed connection
//  '- a data PDU of a package connection
//
// One encoding serves all connections: the framing is the number of header bytes that are skipped.
enum class EForwardFraming : DWORD { PACKAGE = 0, LENGTH = 1, NONE = 5 };

// Owned by the log. The payload is behind the header in the same storage, which it shares with other messages, or a chain.
struct CForwardMessage {
    static constexpr DWORD HEADER_LENGTH = 5;

    BOOL HasKey() const { return m_ullKey != 0; }
    BOOL IsKeyMessage() const { return (m_dwFlags & CCmForwardHeader::KEY_MESSAGE) != 0; }

    CCmRefPtrT<CCmDataBlock> m_pBlock;
    CCmChainPtr m_pPayload;  // null: it is behind the header
    uint64_t m_ullKey = 0;
    DWORD m_dwOffset = 0;  // of the header in m_pBlock
    DWORD m_dwLength = 0;  // of the payload
    DWORD m_dwFlags = 0;   // of CCmForwardHeader
};

// Makes messages. Headers and small payloads are copied, one after the other, into blocks that many messages share. One thread
// at a time.
class TALVO_API CForwardPacker {
public:
    static constexpr DWORD MAX_COPIED = 1024;  // bytes of payload

    // aLength: that of aData, which is not consumed. CM_ERROR_OUT_OF_MEMORY.
    CmResult Pack(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader, CForwardMessage& aMessage);

    // Moves a copied payload into storage of its own, so that it does not keep that of other messages. CM_ERROR_OUT_OF_MEMORY:
    // nothing changes.
    static CmResult Separate(CForwardMessage& aMessage);

private:
    char* Reserve_i(DWORD aCount);

    CCmRefPtrT<CCmDataBlock> m_pBlock;
    DWORD m_dwUsed = 0;
};

}  // namespace talvo
