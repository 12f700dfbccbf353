// A message of a forward session, ready to be sent over any connection.
#pragma once

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"
#include "talvo/session/forward_session.h"

namespace talvo {

//  0      1               5
//  | type | payload length | payload ...       big-endian
//  |      |                '- bytes of a stream
//  |      '- a frame of a length-prefixed connection
//  '- a data PDU of a package connection
//
// An encoding serves all connections that need an end of its header. The value is the length of that end.
enum class EForwardFraming : BYTE { NONE = 0, LENGTH = 4, PACKAGE = 5 };

constexpr DWORD HeaderLengthOf(EForwardFraming aFraming) { return static_cast<DWORD>(aFraming); }

// Owned by the log. The payload is behind the header in the same storage, which it shares with other messages, or a chain.
struct CForwardMessage {
    BOOL HasKey() const { return m_ullKey != 0; }
    BOOL IsKeyMessage() const { return (m_byFlags & CCmForwardHeader::KEY_MESSAGE) != 0; }
    const char* GetStorage() const { return m_pBlock->GetBasePtr() + m_dwOffset; }
    DWORD GetHeaderLength() const { return HeaderLengthOf(m_Framing); }
    // The bytes in the storage.
    DWORD GetStored() const { return GetHeaderLength() + (m_pPayload ? 0 : m_dwLength); }

    CCmRefPtrT<CCmDataBlock> m_pBlock;
    CCmChainPtr m_pPayload;  // null: it is behind the header
    uint64_t m_ullKey = 0;
    DWORD m_dwOffset = 0;                                  // of the header in m_pBlock
    DWORD m_dwLength = 0;                                  // of the payload
    BYTE m_byFlags = 0;                                    // of CCmForwardHeader
    EForwardFraming m_Framing = EForwardFraming::PACKAGE;  // of the storage
};

// Writes the header that aFraming needs; returns its end.
char* WriteForwardHeader(char* aTo, EForwardFraming aFraming, DWORD aLength);

// Makes messages. Headers and small payloads are copied, one after the other, into blocks that many messages share. One thread
// at a time.
class TALVO_API CForwardPacker {
public:
    CForwardPacker() = default;
    ~CForwardPacker() { LeaveBlock_i(); }
    CForwardPacker(const CForwardPacker&) = delete;
    CForwardPacker& operator=(const CForwardPacker&) = delete;

    static constexpr DWORD MAX_COPIED = 1024;  // bytes of payload

    // The framing of small messages from now on; PACKAGE at first. Receivers that need the same get whole runs of messages at
    // once. Large messages always have the longest header.
    void SetFraming(EForwardFraming aFraming) { m_Framing = aFraming; }
    EForwardFraming GetFraming() const { return m_Framing; }

    // aLength: that of aData, which is not consumed. aMessage (out) is empty before. CM_ERROR_OUT_OF_MEMORY: it stays empty.
    CmResult Pack(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader, CForwardMessage& aMessage);

    // Moves a copied payload into storage of its own, so that it does not keep that of other messages. CM_ERROR_OUT_OF_MEMORY:
    // nothing changes.
    static CmResult Separate(CForwardMessage& aMessage);

private:
    char* Reserve_i(DWORD aCount);
    CCmRefPtrT<CCmDataBlock> Share_i();
    void LeaveBlock_i();

    CCmRefPtrT<CCmDataBlock> m_pBlock;
    DWORD m_dwUsed = 0;
    DWORD m_dwShares = 0;  // references to it for messages to come
    EForwardFraming m_Framing = EForwardFraming::PACKAGE;
};

}  // namespace talvo
