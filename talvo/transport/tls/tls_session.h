// TLS over the raw socket of a transport; the one file that hands bytes to OpenSSL and takes them back.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/transport/tcp/transport_tcp.h"
#include "talvo/transport/tls/ssl_info.h"

struct ssl_st;

namespace talvo {

// The handshake, the records and the ends of one connection, client or server. It reads and writes the socket by Recv_i and
// Send_i. Sealed bytes that the socket refuses are kept and leave before anything new is sealed. In the thread of the
// transport.
class TALVO_API CTlsSession {
public:
    enum EResult {
        DONE,
        WANT_READ,   // the socket would block
        WANT_WRITE,  // sealed bytes wait for room
        ENDED,       // the peer has sent close_notify, and there is no more data
        FAILED       // see GetFailureText
    };

    static constexpr DWORD RECORD = 16384;          // the data of one record (RFC 8446, 5.1)
    static constexpr DWORD MOST_SEALED = 65536;     // in one system call
    static constexpr DWORD MOST_HANDSHAKE = 65536;  // bytes of a client's handshake

    // aSsl: owned, a client's or a server's, and configured. aSocket outlives the session.
    CTlsSession(CCmTransportTcp& aSocket, ssl_st* aSsl);
    ~CTlsSession();
    CTlsSession(const CTlsSession&) = delete;
    CTlsSession& operator=(const CTlsSession&) = delete;

    // DONE: complete, and all of it has been sent. Bytes behind it go back by UnRecv_i.
    EResult Handshake();

    // Decrypts into aBuf with at most one read of the socket, more only if a read brings no data. aRead (out): the bytes; 0
    // unless DONE. aMore (out): there is more to read without a report of the socket.
    EResult Read(char* aBuf, DWORD aLen, DWORD& aRead, BOOL& aMore);
    // Decrypted bytes that Read returns without the socket.
    DWORD GetHeld() const;

    // Seals and sends. aTaken (out): the bytes taken, fewer than all only with WANT_WRITE or FAILED.
    EResult Write(const iovec* aPieces, DWORD aCount, DWORD& aTaken);
    // Sends the sealed bytes that are kept. aEnd: seals close_notify behind them, once.
    EResult Flush(BOOL aEnd);
    DWORD GetUnsent() const { return m_pKept ? static_cast<DWORD>(m_pKept->size() - m_stKeptSent) : 0; }
    // Null: there are none, or memory ran out.
    CCmChainPtr TakeUnsent();
    // Read waits until the answers to the peer have left; it must be called again then.
    BOOL WaitsForAnswers() const { return m_bAnswersWait; }

    BOOL HasPeerEnded() const;
    BOOL IsCut() const { return m_bCut; }                // the socket has ended or failed
    BOOL IsUnverified() const { return m_bUnverified; }  // the handshake has failed for the peer's certificate
    BOOL IsVerified() const;
    // "certificate has expired", "unexpected eof while reading": static, or as long as the session.
    const char* GetFailureText() const { return m_strFailure.c_str(); }

    // aDer (out): the peer's certificate. CM_ERROR_NOT_FOUND: it has sent none.
    CmResult GetPeerCertificate(CCmString& aDer) const;
    void GetInfo(CCmSslInfo& aInfo) const;

private:
    friend struct CTlsBio;

    int ReadRaw_i(char* aBuf, int aLen);
    int WriteRaw_i(const char* aBuf, int aLen);
    int TakeInput_i(char* aBuf, DWORD aLen);
    EResult ReadOnce_i(char* aBuf, DWORD aLen, DWORD& aRead);
    EResult Outcome_i(int aReturned);
    EResult Fail_i(const char* aText);
    BOOL PutBack_i();
    EResult SendSealed_i();
    EResult SendKept_i();
    BOOL Keep_i(const char* aData, size_t aLen);
    EResult SealSome_i(const iovec*& aPiece, const iovec* aEnd, size_t& aOffset, DWORD& aTaken);
    void Verified_i(int aError, int aDepth, const char* aSubject);

    CCmTransportTcp& m_Socket;
    ssl_st* const m_pSsl;
    std::unique_ptr<std::vector<char>> m_pKept;  // sealed, for the socket; null: none
    size_t m_stKeptSent = 0;
    std::string m_strFailure;
    const char* m_pInput = nullptr;  // received in this call, not decrypted yet
    DWORD m_dwInput = 0;
    DWORD m_dwReceived = 0;  // by the handshake
    BYTE m_byReads = 0;      // that this call may still make
    bool m_bDry = false;     // the socket would block
    bool m_bCut = false;     // it has ended or failed
    bool m_bFailed = false;
    bool m_bShaken = false;
    bool m_bEnded = false;  // ours: close_notify is sealed
    bool m_bAnswersWait = false;
    bool m_bUnverified = false;
};

}  // namespace talvo
