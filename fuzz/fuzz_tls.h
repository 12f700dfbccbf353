// A TLS transport whose peer's bytes the input replaces or changes, during the handshake and after it.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "fuzz/fuzz_input.h"
#include "talvo/testing/upcall_log.h"
#include "talvo/transport/tls/transport_ssl.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"
#include "tests/support/temp_dir.h"

// An honest peer over memory; the context of a client trusts it.
class CFuzzTls {
public:
    explicit CFuzzTls(BOOL aServer) : m_bServer(aServer), m_pContext(new CCmSslContext), m_pPeer(SSL_CTX_new(TLS_method())) {
        const std::string strMake = std::string(TALVO_MAKE_CERTIFICATES " ") + m_Dir.PathOf("");
        const std::string strChain = m_Dir.PathOf("server.pem"), strKey = m_Dir.PathOf("server.key");
        FUZZ_CHECK(std::system(strMake.c_str()) == 0);
        if (aServer) {
            FUZZ_CHECK(m_pContext->AddCertificate(strChain.c_str(), strKey.c_str()) == CM_OK);
            return;
        }
        FUZZ_CHECK(m_pContext->SetTrust(m_Dir.PathOf("root.pem").c_str()) == CM_OK);
        FUZZ_CHECK(SSL_CTX_use_certificate_chain_file(m_pPeer, strChain.c_str()) == 1);
        FUZZ_CHECK(SSL_CTX_use_PrivateKey_file(m_pPeer, strKey.c_str(), SSL_FILETYPE_PEM) == 1);
    }

    void Run(const uint8_t* aData, size_t aSize) {
        FuzzedDataProvider input(aData, aSize);
        auto [fdOurs, fdPeer] = MakeSocketPair();
        CCmUpcallLog sink;
        const CCmRefPtrT<CCmTransportSsl> pTransport(new CCmTransportSsl(&m_Main.GetReactor(), CM_TRANSPORT_TYPE_TLS));
        pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        fdOurs.Close();
        FUZZ_CHECK(pTransport->Begin(m_pContext, m_bServer ? nullptr : "localhost") == CM_OK);
        talvo::CTlsSession& session = *pTransport->GetSession();
        SSL* pPeer = SSL_new(m_pPeer);
        SSL_set_bio(pPeer, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_max_proto_version(pPeer, input.ConsumeBool() ? TLS1_2_VERSION : TLS1_3_VERSION);
        m_bServer ? SSL_set_connect_state(pPeer) : SSL_set_accept_state(pPeer);
        std::string strSealed;
        auto result = talvo::CTlsSession::WANT_READ;
        for (int i = 0; i < 8 && result == talvo::CTlsSession::WANT_READ; ++i) {
            SSL_do_handshake(pPeer);
            Move(pPeer, fdPeer, input);
            result = session.Handshake();
            Answer(pPeer, fdPeer);
        }
        FUZZ_CHECK(session.IsUp() == (result == talvo::CTlsSession::DONE));
        FUZZ_CHECK(session.IsUp() == (pTransport->OpenWithSink(&sink) == CM_OK));
        SSL_do_handshake(pPeer);
        for (int i = 0; i < 8 && session.IsUp() && sink.m_nDisconnects == 0; ++i) {
            if (const std::string strText = input.ConsumeRandomLengthString(100);
                SSL_write(pPeer, strText.data(), static_cast<int>(strText.size())) > 0)
                strSealed += strText;
            Move(pPeer, fdPeer, input);
            m_Main.RunOnce();
            FUZZ_CHECK(strSealed.starts_with(sink.m_strReceived) && sink.GetFaults().empty());
            FUZZ_CHECK(session.GetUnsent() <= talvo::CTlsSession::MOST_ANSWERS + 100);
        }
        SSL_free(pPeer);
        ERR_clear_error();
        pTransport->Disconnect(CM_OK);
    }

private:
    // Some of the peer's bytes, changed by the input, and some of the input's own.
    static void Move(SSL* aPeer, const CTestFd& aFd, FuzzedDataProvider& aInput) {
        char buffer[16384];
        const int nRead = BIO_read(SSL_get_wbio(aPeer), buffer, sizeof buffer);
        std::string strBytes(buffer, nRead > 0 ? static_cast<size_t>(nRead) : 0);
        while (!strBytes.empty() && aInput.ConsumeBool())
            strBytes[aInput.ConsumeIntegralInRange<size_t>(0, strBytes.size() - 1)] ^= aInput.ConsumeIntegral<char>();
        strBytes += aInput.ConsumeRandomLengthString(300);
        send(aFd.Get(), strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
    }
    static void Answer(SSL* aPeer, const CTestFd& aFd) {
        const std::string strBytes = aFd.Read();
        BIO_write(SSL_get_rbio(aPeer), strBytes.data(), static_cast<int>(strBytes.size()));
        ERR_clear_error();
    }

    const CMainThread m_Main;
    const CCmTempDir m_Dir;
    const BOOL m_bServer;
    const CCmRefPtrT<CCmSslContext> m_pContext;
    SSL_CTX* const m_pPeer;
};
