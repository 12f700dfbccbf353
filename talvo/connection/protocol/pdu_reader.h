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
    // Adds received bytes, which must stay valid until Keep or Clear. CM_ERROR_OUT_OF_MEMORY: some are lost, the stream cannot
    // continue; also the result of Keep, which stores those of an incomplete PDU.
    CmResult Borrow(const CCmMessageBlock& aData) { return m_Received.Borrow(aData); }
    CmResult Keep() { return m_Received.Keep(m_dwLength); }

    // There are enough bytes for the next step: the type, the header or the whole PDU.
    CmBool IsReady() const { return m_Received.GetLength() >= m_dwLength; }
    CmDword GetReceived() const { return m_Received.GetLength(); }  // bytes not yet taken

    // The current PDU.
    CmByte GetType() const { return m_byType; }                // CS_PDU_TYPE_NONE: not read yet
    CmDword GetLength() const { return m_dwLength; }           // bytes known so far
    CmDword GetDataLength() const { return m_dwDataLength; }   // of a data PDU whose header has been read
    CmDword GetACK() const { return m_dwACK; }                 // likewise
    CmBool IsDataLengthKnown() const { return m_bDataKnown; }  // likewise

    // Reads the type. aNeedACK: data PDUs have an ACK field. FALSE: there is no such type.
    CmBool ReadType(CmBool aNeedACK);
    // Reads the header of a data PDU. FALSE: the length is beyond aMaxData, and the header counts as not read.
    CmBool ReadDataHeader(CmBool aNeedACK, CmDword aMaxData);
    // The current PDU has aLength bytes, and not those of its type.
    void SetLength(CmDword aLength) { m_dwLength = aLength; }
    // Copies the first aCount bytes, which must exist, without consuming them.
    void Peek(void* aDst, CmDword aCount) const { m_Received.Peek(aDst, aCount); }
    // See CReceiveChain.
    const char* GetBorrowed(CmDword& aLength) const { return m_Received.GetBorrowed(aLength); }
    // Takes a PDU without payload.
    void TakeFixed(CCsPduBase& aPdu);
    // Takes the complete header of a data PDU; the payload comes next.
    void SkipHeader() { m_Received.Skip(m_dwLength - m_dwDataLength); }
    void Skip(CmDword aCount) { m_Received.Skip(aCount); }
    // Passes the first aCount bytes to aUse as a block; see CReceiveChain::Take.
    template <class Use>
    CmResult Take(CmDword aCount, Use aUse) {
        return m_Received.Take(aCount, aUse);
    }

    // Starts the next PDU.
    void Next();
    // Drops everything.
    void Clear();

private:
    CReceiveChain m_Received;
    CmDword m_dwLength = 1;
    CmDword m_dwDataLength = 0;
    CmDword m_dwACK = 0;
    CmByte m_byType = CS_PDU_TYPE_NONE;
    bool m_bDataKnown = false;
};

}  // namespace talvo
