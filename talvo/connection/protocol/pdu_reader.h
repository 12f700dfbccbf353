// Reads PDUs from received bytes.
#pragma once

#include "talvo/base/export.h"
#include "talvo/connection/protocol/cs_pdu.h"
#include "talvo/connection/protocol/receive_chain.h"

namespace talvo {

// Stores received bytes and reads one PDU after another: the type, for a data PDU the header with its length, then the whole.
// Checks only the type. One thread.
class TALVO_API CPduReader {
public:
    // Adds received bytes. CM_ERROR_OUT_OF_MEMORY: some are lost, the stream cannot continue.
    CmResult Append(const CCmMessageBlock& aData);

    // There are enough bytes for the next step: the type, the header or the whole PDU.
    BOOL IsReady() const { return m_Received.GetLength() >= m_dwLength; }
    DWORD GetReceived() const { return m_Received.GetLength(); }  // bytes not yet taken

    // The current PDU.
    BYTE GetType() const { return m_byType; }                // CS_PDU_TYPE_NONE: not read yet
    DWORD GetLength() const { return m_dwLength; }           // bytes known so far
    DWORD GetDataLength() const { return m_dwDataLength; }   // of a data PDU whose header has been read
    DWORD GetACK() const { return m_dwACK; }                 // likewise
    BOOL IsDataLengthKnown() const { return m_bDataKnown; }  // likewise

    // Reads the type. aNeedACK: data PDUs have an ACK field. FALSE: there is no such type.
    BOOL ReadType(BOOL aNeedACK);
    // Reads the header of a data PDU. FALSE: the length is beyond aMaxData, and the header counts as not read.
    BOOL ReadDataHeader(BOOL aNeedACK, DWORD aMaxData);
    // The current PDU has aLength bytes, and not those of its type.
    void SetLength(DWORD aLength) { m_dwLength = aLength; }
    // Copies the first aCount bytes, which must exist, without consuming them.
    void Peek(void* aDst, DWORD aCount) const { m_Received.Peek(aDst, aCount); }
    // Takes a PDU without payload.
    void TakeFixed(CCsPduBase& aPdu);
    // Takes the complete header of a data PDU; the payload comes next.
    void SkipHeader() { m_Received.Skip(m_dwLength - m_dwDataLength); }
    void Skip(DWORD aCount) { m_Received.Skip(aCount); }
    // Passes the first aCount bytes to aUse as a block; see CReceiveChain::Take.
    template <class Use>
    CmResult Take(DWORD aCount, Use aUse) {
        return m_Received.Take(aCount, aUse);
    }

    // Starts the next PDU.
    void Next();
    // Drops everything.
    void Clear();

private:
    CReceiveChain m_Received;
    DWORD m_dwLength = 1;
    DWORD m_dwDataLength = 0;
    DWORD m_dwACK = 0;
    BYTE m_byType = CS_PDU_TYPE_NONE;
    bool m_bDataKnown = false;
};

}  // namespace talvo
