// A TCP connection whose bytes TLS protects.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/tls/ssl_context.h"
#include "talvo/transport/tls/tls_outer.h"

// A stream like TCP's; see CCmTransportTcp. Connectors and acceptors of the types 4, 8 and 12 make it, and indicate it when its
// handshake is complete; OpenWithSink returns CM_ERROR_NOT_INITIALIZED before. An OnReceive has at most 16,384 bytes.
// CM_OPT_TRANSPORT_READ_SIZE is that of the ciphertext; the frame of a record, 261 bytes, comes on top.
//
// OnDisconnect is CM_ERROR_NETWORK_SOCKET_ERROR behind the peer's close_notify. Any other end is CM_ERROR_NETWORK_TLS_CUT: the
// stream may be truncated. Disconnect(CM_OK) and CM_OPT_TRANSPORT_END_SENDING send close_notify; a peer of TLS 1.2 may then
// drop what it has not sent yet (RFC 5246, 7.2.1).
//
// A send is sealed in records of at most 16 KiB, 64 KiB in one system call. A sealed record counts as sent. Sealed bytes that
// the socket does not take are kept, at most 64 KiB and a record, and leave by themselves before anything new is sealed. The
// last release does not lose them either: see CTransportLinger.
//
// The answers of OpenSSL to a peer, to key updates for example, wait for room likewise. With 16 KiB of them nothing is read
// until they have left.
//
// Through an HTTPS proxy there is a session with the proxy around that of the peer. A connection of type 1 through one has no
// other session, and answers all options as over plain TCP.
class TALVO_API CCmTransportSsl : public CCmTransportTcp, private talvo::ITlsLower {
public:
    // aType: 4, 8 or 12; 1: through an HTTPS proxy. The session begins with Begin.
    CCmTransportSsl(ICmReactor* aReactor, DWORD aType);
    ~CCmTransportSsl() override;

    // Before the handshake, once. aServerName: the name that a client expects, or an address; null for a server.
    // CM_ERROR_ALREADY_INITIALIZED. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_FAILURE: the versions of the type and the context are
    // disjoint, or OpenSSL refuses the name.
    // aAlpn: instead of the context's protocols; empty: those. See MakeAlpnList.
    CmResult Begin(const CCmRefPtrT<CCmSslContext>& aContext, const char* aServerName,
                   const std::vector<unsigned char>& aAlpn = {});

    // Before Begin, once: the session with an HTTPS proxy. Results as Begin.
    CmResult BeginOuter(const CCmRefPtrT<CCmSslContext>& aContext, const char* aServerName);
    // Null before BeginOuter, and after UseOuter.
    talvo::CTlsSession* GetOuter() const { return m_pOuter ? &m_pOuter->GetSession() : nullptr; }
    // For type 1, instead of Begin: the session with the proxy, whose handshake is complete, carries the peer's bytes.
    void UseOuter();

    // The handshake of Begin; also WANT_WRITE: the session with the proxy has bytes to send. Throws std::bad_alloc.
    talvo::CTlsSession::EResult Handshake();

    // Null before Begin.
    talvo::CTlsSession* GetSession() const { return m_pSession.get(); }

    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;

    // Also CM_ERROR_NOT_INITIALIZED: the handshake is not complete.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

protected:
    CmResult Open_t() override;
    void OnReferenceDestory() override;

    int Read_i(char* aBuf, DWORD aLen, BOOL& aMore) override;
    BOOL IsDry_i(DWORD, DWORD) const override { return TRUE; }  // Read_i has asked for more otherwise
    DWORD GetHeld_i() const override;
    CmBool HasEnded_i() const override;
    void NoteEnd_i() override;
    int Write_i(const iovec* aPieces, DWORD aCount) override;
    CmResult Flush_i(BOOL aEnd) override;
    DWORD GetUnsent_i() const override;
    CCmChainPtr TakeUnsent_i() override;
    CmResult GetEndReason_i() const override;

private:
    int RecvSealed(char* aBuf, DWORD aLen) override { return Recv_i(aBuf, aLen); }
    BOOL HasMoreSealed() const override { return HasReadAhead_i(); }
    int SendSealed(const char* aBuf, DWORD aLen, BOOL aMore) override { return Send_i(aBuf, aLen, aMore); }

    BOOL IsUp_i() const { return m_pSession && m_pSession->IsUp(); }
    int Ended_i(talvo::CTlsSession::EResult aResult);
    CmResult FlushBoth_i(BOOL aEnd, BOOL aMore);
    void ReadOn_i();
    CmResult GetAlive_i(BOOL& aAlive);
    CmResult GetLastFailure_i(CCmFailure& aFailure);
    CmResult GetInfo_i(CCmSslInfo& aInfo) const;

    CCmRefPtrT<CCmSslContext> m_pContext;        // as long as the session
    std::unique_ptr<talvo::CTlsOuter> m_pOuter;  // null unless there is an HTTPS proxy
    std::unique_ptr<talvo::CTlsSession> m_pSession;
    const DWORD m_dwType;
};
