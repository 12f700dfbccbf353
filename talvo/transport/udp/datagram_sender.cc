#include "talvo/transport/udp/datagram_sender.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

namespace {

constexpr int SEND_FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;

}  // namespace

void CDatagramSender::Lend(const char* aBegin, const char* aEnd) {
    m_pLentBegin = aBegin;
    m_pLentEnd = aEnd;
}

CmResult CDatagramSender::Add(const CCmMessageBlock& aData, const CCmInetAddr* aTo) {
    if (m_bFull)
        return CM_ERROR_PARTIAL_DATA;
    CDatagram datagram{{}, 0, m_Pieces.size(), 0, nullptr};
    if (aTo) {
        datagram.m_ToLength = std::min<socklen_t>(aTo->GetSize(), sizeof datagram.m_To);
        std::memcpy(&datagram.m_To, aTo->GetPtr(), datagram.m_ToLength);
    }
    const size_t stPieces = m_Pieces.size();
    if (AddPieces(datagram, aData) && WithMemory([&] { m_Datagrams.push_back(std::move(datagram)); }))
        return CM_OK;
    m_Pieces.resize(stPieces);
    return CM_ERROR_OUT_OF_MEMORY;
}

BOOL CDatagramSender::AddPieces(CDatagram& aDatagram, const CCmMessageBlock& aData) {
    for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext()) {
        if (pBlock->GetTopLevelLength() == 0)
            continue;
        iovec piece{const_cast<char*>(pBlock->GetTopLevelReadPtr()), pBlock->GetTopLevelLength()};
        if (!IsLent(piece.iov_base) && !Keep(aDatagram, *pBlock, piece))
            return FALSE;
        if (!WithMemory([&] { m_Pieces.push_back(piece); }))
            return FALSE;
    }
    aDatagram.m_stPieces = m_Pieces.size() - aDatagram.m_stPiece;
    return TRUE;
}

// Moves aPiece, a part of aBlock, into a duplicate that the datagram owns.
BOOL CDatagramSender::Keep(CDatagram& aDatagram, const CCmMessageBlock& aBlock, iovec& aPiece) {
    CCmChainPtr pKept(aBlock.DuplicateTopLevel());
    if (!pKept)
        return FALSE;
    aPiece.iov_base = const_cast<char*>(pKept->GetTopLevelReadPtr());  // sending does not write to it
    pKept->Append(aDatagram.m_pKept.release());
    aDatagram.m_pKept = std::move(pKept);
    return TRUE;
}

int CDatagramSender::Flush(HANDLE aFd) {
    int nError = 0;
    while (m_stGone < m_Datagrams.size()) {
        const int nSent = SendSome(aFd);
        if (nSent > 0) {
            m_stGone += static_cast<size_t>(nSent);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            m_bFull = TRUE;
            KeepRest();
            return nError;
        } else if (errno != EINTR) {
            nError = errno;
            ++m_stGone;
            ++m_ullLost;
        }
    }
    Clear();
    return nError;
}

int CDatagramSender::SendSome(HANDLE aFd) {
    ++m_ullCalls;
    const size_t stCount = std::min<size_t>(m_Datagrams.size() - m_stGone, CDatagramBuffers::BATCH);
    if (stCount == 1 && m_Datagrams[m_stGone].m_stPieces == 1)
        return SendOne(aFd, m_Datagrams[m_stGone]);
    CDatagramBuffers* pBuffers = GetDatagramBuffers();
    if (!pBuffers) {
        errno = ENOMEM;
        return -1;
    }
    mmsghdr* pMessages = pBuffers->m_Sent;
    for (size_t i = 0; i < stCount; ++i) {
        CDatagram& datagram = m_Datagrams[m_stGone + i];
        msghdr& header = pMessages[i].msg_hdr;
        header.msg_name = datagram.m_ToLength == 0 ? nullptr : &datagram.m_To;
        header.msg_namelen = datagram.m_ToLength;
        header.msg_iov = m_Pieces.data() + datagram.m_stPiece;
        header.msg_iovlen = datagram.m_stPieces;
    }
    return sendmmsg(aFd, pMessages, static_cast<unsigned>(stCount), SEND_FLAGS);
}

// The plain call is cheaper for a single piece.
int CDatagramSender::SendOne(HANDLE aFd, const CDatagram& aDatagram) const {
    const iovec& piece = m_Pieces[aDatagram.m_stPiece];
    const auto* pTo = reinterpret_cast<const sockaddr*>(aDatagram.m_ToLength == 0 ? nullptr : &aDatagram.m_To);
    return sendto(aFd, piece.iov_base, piece.iov_len, SEND_FLAGS, pTo, aDatagram.m_ToLength) >= 0 ? 1 : -1;
}

// Datagrams that wait for room outlive the loan. If memory runs out, a datagram is lost.
void CDatagramSender::KeepRest() {
    const auto first = m_Datagrams.begin() + static_cast<std::ptrdiff_t>(m_stGone);
    const auto end = std::remove_if(first, m_Datagrams.end(), [this](CDatagram& aDatagram) {
        const BOOL bKept = KeepLent(aDatagram);
        m_ullLost += bKept ? 0 : 1;
        return !bKept;
    });
    m_Datagrams.erase(end, m_Datagrams.end());
}

BOOL CDatagramSender::KeepLent(CDatagram& aDatagram) {
    for (size_t i = 0; i < aDatagram.m_stPieces; ++i) {
        iovec& piece = m_Pieces[aDatagram.m_stPiece + i];
        if (!IsLent(piece.iov_base))
            continue;
        const DWORD dwLength = static_cast<DWORD>(piece.iov_len);
        const CCmMessageBlock view(dwLength, static_cast<char*>(piece.iov_base), CCmMessageBlock::DONT_DELETE, dwLength);
        if (!Keep(aDatagram, view, piece))
            return FALSE;
    }
    return TRUE;
}

void CDatagramSender::Clear() {
    m_Datagrams.clear();
    m_Pieces.clear();
    m_stGone = 0;
    m_bFull = FALSE;
}

}  // namespace talvo
