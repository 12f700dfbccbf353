// TLS over the raw socket of a transport, or over another session; the one file that hands bytes to OpenSSL and takes them
// back.
#pragma once

#include <memory>
#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/transport/tcp/transport_tcp.h"
#include "talvo/transport/tls/ssl_info.h"
#include "talvo/transport/tls/tls_lower.h"

struct ssl_st;

namespace talvo {

class CTlsCall;
class CTlsPieces;
struct CTlsInput;

// The handshake, the records and the ends of one connection, client or server. It reads and writes the socket by Recv_i and
// Send_i. Sealed bytes that the socket refuses are kept and leave before anything new is sealed. In the thread of the
// transport. A call inside another call of the same session, from a sink of the trace, does nothing.
class TALVO_API CTlsSession {
public:
    enum EResult {
        DONE,
        WANT_READ,   // the socket would block
        WANT_WRITE,  // sealed bytes wait for room, or a message of the peer's handshake is incomplete
        ENDED,       // the peer has sent close_notify, and there is no more data
        FAILED       // see GetFailureText
    };

    static constexpr DWORD RECORD = 16384;          // the data of one record (RFC 8446, 5.1)
    static constexpr DWORD FRAME = 261;             // its header, and the most that sealing adds (RFC 8446, 5.2)
    static constexpr DWORD MOST_SEALED = 65536;     // the data of one system call
    static constexpr DWORD MOST_ANSWERS = 16384;    // OpenSSL's own bytes to the peer that wait for room
    static constexpr DWORD MOST_HANDSHAKE = 65536;  // bytes of a client's handshake

    // aSsl: owned, a client's or a server's, and configured. aLower outlives the session; "the socket" below is this side.
    CTlsSession(ITlsLower& aLower, ssl_st* aSsl);
    ~CTlsSession();
    CTlsSession(const CTlsSession&) = delete;
    CTlsSession& operator=(const CTlsSession&) = delete;

    // Before the handshake, instead of the context's protocols; see MakeAlpnList. FALSE: memory ran out.
    BOOL UseAlpn(const std::vector<unsigned char>& aList);
    const std::vector<unsigned char>& GetAlpn() const { return m_Alpn; }  // of a server

    // DONE: complete, and all of it has been sent; but see HoldsBack. Throws std::bad_alloc.
    EResult Handshake();
    // The handshake is complete. Without it there is neither Read nor Write.
    BOOL IsUp() const { return m_bUp; }

    // Decrypts into aBuf with at most one read of the socket, of aLen bytes and FRAME: a record of aLen bytes arrives whole.
    // aRead (out): at most aLen and RECORD bytes; 0 unless DONE. aMore (out): there is more to read without a report of the
    // socket.
    EResult Read(char* aBuf, DWORD aLen, DWORD& aRead, BOOL& aMore);
    // As Read, without aMore, but the bytes stay in the session. After a DONE its caller reads them, or calls it again.
    EResult Peek(char* aBuf, DWORD aLen, DWORD& aRead);
    // Decrypted bytes that Read returns without the socket.
    DWORD GetHeld() const;
    // Bytes that have left the socket, but not OpenSSL: the next Read looks at them without the socket.
    DWORD GetInput() const;
    // The beginning of a record, or more, has left the socket.
    BOOL HasBegunRecord() const;

    // Seals and sends. aTaken (out): the bytes taken, fewer than all only with WANT_WRITE or FAILED.
    // aAll: takes all that it can seal, and keeps without a limit what the socket does not take.
    EResult Write(const iovec* aPieces, DWORD aCount, DWORD& aTaken, BOOL aAll = FALSE);
    // FALSE: Write takes nothing before Read has read the rest of a message.
    BOOL CanSeal() const;
    // The tickets of TLS 1.3, for which no client waits, leave with the answer to the input behind the handshake: with the next
    // Write or Flush. TRUE: neither has followed yet.
    BOOL HoldsBack() const { return m_bHoldsBack; }
    // Sends the sealed bytes that are kept. aEnd: seals close_notify behind them, once; nothing is sealed after that. aMore:
    // the end of the socket follows at once.
    EResult Flush(BOOL aEnd, BOOL aMore = FALSE);
    DWORD GetUnsent() const { return m_pKept ? static_cast<DWORD>(m_pKept->size() - m_stKeptSent) : 0; }
    // Null: there are none, or memory ran out.
    CCmChainPtr TakeUnsent();
    // The errno of the send that has failed; 0: none.
    int GetSendErrno() const { return m_nSendErrno; }

    // FALSE: the last Read has returned kept bytes only, and the socket may have more since.
    BOOL HasLooked() const { return m_bLooked; }
    // Read waits until OpenSSL's answers to the peer have left.
    BOOL WaitsForAnswers() const { return m_bAnswersWait; }
    // TRUE once after that: Read must be called again.
    BOOL MayReadOn();
    // The peer has gone: its answers are dropped instead.
    void DropAnswers();

    // OpenSSL has a message of a handshake, and so perhaps buffers that it keeps.
    void NoteHandshakeMessage() { m_bMayKeepBuffers = true; }

    BOOL HasPeerEnded() const { return m_bPeerEnded; }      // close_notify has arrived
    BOOL IsDrained() const { return m_bDrained; }           // and the socket had no byte behind it
    BOOL IsBroken() const { return m_bFailed && !m_bCut; }  // a record was wrong, or an alert has arrived
    BOOL IsUnverified() const;                              // the peer's certificate was refused
    BOOL IsVerified() const;
    // "certificate has expired", "unexpected eof while reading". Static.
    const char* GetFailureText() const;

    // aDer (out): the peer's certificate. CM_ERROR_NOT_FOUND: it has sent none.
    CmResult GetPeerCertificate(CCmString& aDer) const;
    // Throws std::bad_alloc.
    void GetInfo(CCmSslInfo& aInfo) const;

private:
    friend struct CTlsBio;

    int ReadRaw_i(char* aBuf, int aLen);
    int WriteRaw_i(const char* aBuf, int aLen);
    BOOL Receive_i();
    EResult ReadSome_i(char* aBuf, DWORD aLen, DWORD& aRead);
    EResult Outcome_i(int aReturned);
    EResult Fail_i(const char* aText);
    BOOL HoldBack_i();
    void NoteBehind_i();
    void PutBack_i();
    void ReleaseBuffers_i();
    EResult SendSealed_i(BOOL aMore = FALSE);
    EResult SendOrKeep_i(const char* aData, size_t aLen, BOOL aMore);
    EResult SendKept_i(BOOL aMore = FALSE);
    EResult SendFailed_i();
    BOOL Keep_i(const char* aData, size_t aLen);
    EResult SealSome_i(CTlsPieces& aPieces, DWORD& aSealed);
    void DropKept_i();
    DWORD GetAnswers_i() const;
    BOOL HasTooManyAnswers_i() const;
    void Verified_i(int aError, int aDepth, const char* aSubject);

    ITlsLower& m_Lower;
    ssl_st* const m_pSsl;
    std::vector<unsigned char> m_Alpn;           // empty: the context's
    CTlsCall* m_pCall = nullptr;                 // under way
    std::unique_ptr<CTlsInput> m_pInput;         // of this call, or left by the last one; null: none
    std::unique_ptr<std::vector<char>> m_pKept;  // sealed, for the socket; null: none
    size_t m_stKeptSent = 0;
    DWORD m_dwAnswers = 0;   // bytes at the end of m_pKept that Read has sealed, sent ones included
    DWORD m_dwReceived = 0;  // by the handshake
    int m_nSendErrno = 0;
    const char* m_pFailure = nullptr;     // null: none
    const char* m_pUnverified = nullptr;  // the fault of the peer's certificate; null: none
    bool m_bUp = false;
    bool m_bHoldsBack = false;   // m_pKept has tickets alone
    bool m_bBehind = false;      // the last call that read has ended before the socket was dry
    bool m_bCut = false;         // the socket has ended or failed
    bool m_bFailed = false;      // nothing is read or written any more
    bool m_bSendFailed = false;  // nothing is written any more
    bool m_bEnded = false;       // ours: close_notify is sealed
    bool m_bPeerEnded = false;
    bool m_bDry = false;  // the last receive has emptied the socket
    bool m_bDrained = false;
    bool m_bLooked = true;
    bool m_bAnswersWait = false;
    bool m_bMayKeepBuffers = false;
};

}  // namespace talvo
