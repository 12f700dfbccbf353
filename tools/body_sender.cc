#include "tools/body_sender.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tool {

BodySender::BodySender(ICmChannelHttpServer* aChannel, std::unique_ptr<BodySource> aSource, uint64_t aLength,
                       std::unique_ptr<AccessRecord> aRecord)
    : m_pChannel(aChannel),
      m_pSource(std::move(aSource)),
      m_pRecord(std::move(aRecord)),
      m_Piece(static_cast<DWORD>(std::min<uint64_t>(aLength, BodySource::PIECE))) {
    ++s_uCount;
}

void BodySender::Start(ICmChannelHttpServer* aChannel, std::unique_ptr<BodySource> aSource, uint64_t aLength,
                       std::unique_ptr<AccessRecord> aRecord) {
    std::unique_ptr<BodySender> pSender(new BodySender(aChannel, std::move(aSource), aLength, std::move(aRecord)));
    if (pSender->m_Piece.GetTopLevelSpace() == 0)
        throw std::bad_alloc();
    if (aChannel->ReceiveRequest(pSender.get()) == CM_OK)
        pSender.release()->Pump();
}

void BodySender::OnSend(ICmTransport*, CCmTransportParameter*) { Pump(); }

void BodySender::OnDisconnect(CmResult, ICmTransport*) { delete this; }

void BodySender::OnTimer(CCmTimerWrapperID*) { Pump(); }

// A channel that is released before its answer is complete closes the connection.
void BodySender::Pump() {
    for (int i = m_pSource->GetPiecesPerTurn(); i > 0; --i) {
        const CmResult rv = SendPiece();
        if (rv == CM_ERROR_PARTIAL_DATA)
            return;
        if (rv != CM_OK) {
            delete this;
            return;
        }
    }
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue(0, 0), 1);
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        delete this;
}

// CM_OK: more follows. CM_ERROR_NOT_FOUND: the answer is complete.
CmResult BodySender::SendPiece() {
    if (m_Piece.GetTopLevelLength() == 0) {
        m_Piece.RewindChained();
        const BodySource::EResult result = m_pSource->Read(m_Piece);
        if (result == BodySource::END)
            m_pChannel->EndAnswer();
        if (result != BodySource::DATA)
            return result == BodySource::END ? CM_ERROR_NOT_FOUND : CM_ERROR_FAILURE;
    }
    const DWORD dwLength = m_Piece.GetTopLevelLength();
    const CmResult rv = dwLength == 0 ? CM_OK : m_pChannel->SendData(m_Piece);
    if (m_pRecord)
        m_pRecord->AddBytes(dwLength - m_Piece.GetTopLevelLength());
    return rv;
}

}  // namespace tool
