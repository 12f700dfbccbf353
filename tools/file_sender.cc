#include "tools/file_sender.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace tool {

namespace {

constexpr uint64_t PIECE = 64 * 1024;
constexpr int MOST_PIECES = 16;  // in one call, for a client that reads fast

}  // namespace

FileSender::FileSender(ICmChannelHttpServer* aChannel, FileHandle aFile, uint64_t aOffset, uint64_t aLength)
    : m_pChannel(aChannel),
      m_File(std::move(aFile)),
      m_ullOffset(aOffset),
      m_ullLeft(aLength),
      m_Piece(static_cast<DWORD>(std::min(aLength, PIECE))) {
    ++s_uCount;
}

void FileSender::Start(ICmChannelHttpServer* aChannel, FileHandle aFile, uint64_t aOffset, uint64_t aLength) {
    std::unique_ptr<FileSender> pSender(new FileSender(aChannel, std::move(aFile), aOffset, aLength));
    if (aChannel->ReceiveRequest(pSender.get()) == CM_OK)
        pSender.release()->Pump();
}

void FileSender::OnSend(ICmTransport*, CCmTransportParameter*) { Pump(); }

void FileSender::OnDisconnect(CmResult, ICmTransport*) { delete this; }

void FileSender::OnTimer(CCmTimerWrapperID*) { Pump(); }

// A channel that is released before its answer is complete closes the connection.
void FileSender::Pump() {
    for (int i = 0; i < MOST_PIECES; ++i) {
        const CmResult rv = SendPiece();
        if (rv == CM_ERROR_PARTIAL_DATA)
            return;
        if (rv != CM_OK || (m_ullLeft == 0 && m_Piece.GetTopLevelLength() == 0)) {
            delete this;
            return;
        }
    }
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue(0, 0), 1);
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        delete this;
}

CmResult FileSender::SendPiece() {
    if (m_Piece.GetTopLevelLength() == 0) {
        m_Piece.RewindChained();
        const size_t stLength = static_cast<size_t>(std::min<uint64_t>(m_ullLeft, m_Piece.GetTopLevelSpace()));
        const ssize_t lRead = pread(m_File.Get(), m_Piece.GetTopLevelWritePtr(), stLength, static_cast<off_t>(m_ullOffset));
        if (lRead <= 0)
            return CM_ERROR_FAILURE;
        m_Piece.AdvanceTopLevelWritePtr(static_cast<DWORD>(lRead));
        m_ullOffset += static_cast<uint64_t>(lRead);
        m_ullLeft -= static_cast<uint64_t>(lRead);
    }
    return m_pChannel->SendData(m_Piece);
}

}  // namespace tool
