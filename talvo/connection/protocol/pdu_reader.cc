#include "talvo/connection/protocol/pdu_reader.h"

#include <limits>

namespace talvo {

BOOL CPduReader::ReadType(BOOL aNeedACK) {
    m_Received.Peek(&m_byType, sizeof m_byType);
    m_dwLength = CCsPduBase::GetFixLength(m_byType, aNeedACK);
    return m_dwLength > 0;
}

BOOL CPduReader::ReadDataHeader(BOOL aNeedACK, DWORD aMaxData) {
    char szHeader[CCsPduBase::MAX_FIX_LENGTH] = {};
    m_Received.Peek(szHeader, m_dwLength);
    CCsPduData::ReadFixed(szHeader, aNeedACK, m_dwACK, m_dwDataLength);
    if (m_dwDataLength > aMaxData || m_dwDataLength > std::numeric_limits<DWORD>::max() - m_dwLength)
        return FALSE;
    m_dwLength += m_dwDataLength;
    m_bDataKnown = TRUE;
    return TRUE;
}

// Needs no memory.
void CPduReader::TakeFixed(CCsPduBase& aPdu) {
    char szPdu[CCsPduConnToken::LENGTH] = {};
    const DWORD dwLength = aPdu.GetFixLength();
    m_Received.Peek(szPdu, dwLength);
    m_Received.Skip(dwLength);
    CCmMessageBlock block(dwLength, szPdu, 0, dwLength);
    aPdu.Decode(block);
}

void CPduReader::Next() {
    m_dwLength = 1;
    m_byType = CS_PDU_TYPE_NONE;
    m_bDataKnown = FALSE;
}

void CPduReader::Clear() {
    m_Received.Clear();
    Next();
}

}  // namespace talvo
