// Collects datagrams for a socket and sends several with one system call.
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/inet_addr.h"

namespace talvo {

// Collects datagrams and passes them to the system with one call. Independent of any reactor: its owner chooses the time.
// Copies no payload that a data block owns, and none in the lent memory. One thread.
class TALVO_API CDatagramSender {
public:
    CDatagramSender() = default;
    CDatagramSender(const CDatagramSender&) = delete;
    CDatagramSender& operator=(const CDatagramSender&) = delete;

    // Bytes in this memory stay unchanged until the loan is withdrawn, after a Flush.
    void Lend(const char* aBegin, const char* aEnd);
    void CallBackLoan() { Lend(nullptr, nullptr); }

    // Takes a duplicate of a chain that CheckDatagram (datagram.h) accepts. aTo null: the socket is connected.
    // CM_ERROR_PARTIAL_DATA: the socket's buffer is full, and earlier datagrams must leave first. CM_ERROR_OUT_OF_MEMORY.
    CmResult Add(const CCmMessageBlock& aData, const CCmInetAddr* aTo);

    // Sends as much as the socket takes; the rest stays, and IsFull returns TRUE. A datagram that the system refuses for any
    // other reason is lost. Returns that reason (the last one's errno), or 0.
    int Flush(CmHandle aFd);

    void Clear();

    CmBool IsFull() const { return m_bFull; }
    size_t GetWaiting() const { return m_Datagrams.size() - m_stGone; }
    uint64_t GetCalls() const { return m_ullCalls; }  // system calls so far
    uint64_t GetLost() const { return m_ullLost; }    // datagrams that the system refused

private:
    struct CDatagram {
        sockaddr_in6 m_To;     // of either family
        socklen_t m_ToLength;  // 0: connected
        size_t m_stPiece;      // first of its pieces
        size_t m_stPieces;
        CCmChainPtr m_pKept;  // in no order; the memory of its pieces, except lent memory
    };

    CmBool IsLent(const void* aByte) const { return aByte >= m_pLentBegin && aByte < m_pLentEnd; }
    CmBool AddPieces(CDatagram& aDatagram, const CCmMessageBlock& aData);
    int SendSome(CmHandle aFd);
    int SendOne(CmHandle aFd, const CDatagram& aDatagram) const;
    void KeepRest();
    CmBool KeepLent(CDatagram& aDatagram);
    static CmBool Keep(CDatagram& aDatagram, const CCmMessageBlock& aBlock, iovec& aPiece);

    std::vector<CDatagram> m_Datagrams;
    std::vector<iovec> m_Pieces;
    size_t m_stGone = 0;  // the number of m_Datagrams that are finished
    CmBool m_bFull = CM_FALSE;
    const char* m_pLentBegin = nullptr;
    const char* m_pLentEnd = nullptr;
    uint64_t m_ullCalls = 0;
    uint64_t m_ullLost = 0;
};

}  // namespace talvo
