// OpenSSL runs out of memory: each of its allocations in a connection fails in turn, alone or with all that follow.
#include <malloc.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "talvo/transport/tls/transport_ssl.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"

namespace {

// OpenSSL's memory. It takes these functions before its first allocation only.
struct CMemory {
    static void* Allocate(size_t aSize, const char*, int) {
        s_lAllocations += s_bSpared ? 0 : 1;
        const bool bFails = !s_bSpared && (s_bAllFrom ? s_lAllocations >= s_lFails : s_lAllocations == s_lFails);
        void* pMemory = bFails ? nullptr : std::malloc(aSize);
        s_lBlocks += pMemory ? 1 : 0;
        return pMemory;
    }
    static void* Reallocate(void* aMemory, size_t aSize, const char* aFile, int aLine) {
        void* pMemory = aSize > 0 ? Allocate(aSize, aFile, aLine) : nullptr;
        if (pMemory && aMemory)
            std::memcpy(pMemory, aMemory, std::min(aSize, malloc_usable_size(aMemory)));
        if (pMemory || aSize == 0)
            Free(aMemory, aFile, aLine);
        return pMemory;
    }
    static void Free(void* aMemory, const char*, int) {
        s_lBlocks -= aMemory ? 1 : 0;
        std::free(aMemory);
    }
    static void FailAt(long aNumber, bool aAllFrom) {
        s_lAllocations = 0;
        s_lFails = aNumber;
        s_bAllFrom = aAllFrom;
    }
    static bool HasFailed() { return s_lAllocations >= s_lFails; }

    static inline long s_lAllocations = 0, s_lBlocks = 0, s_lFails = LONG_MAX;
    static inline bool s_bAllFrom = false;
    static inline bool s_bSpared = false;  // no allocation fails or counts
    static inline const int s_nTaken = CRYPTO_set_mem_functions(Allocate, Reallocate, Free);
};

const std::string TEXT = Pattern(40000);

// Shakes hands, sends TEXT and ends after as much has come.
class CEnd {
public:
    CEnd(ICmReactor& aReactor, CTestFd aFd, const CCmRefPtrT<CCmSslContext>& aContext, const char* aName, DWORD aType)
        : m_pTransport(new CCmTransportSsl(&aReactor, aType)) {
        m_Sink.m_Send = [this] { Send(); };
        m_pTransport->GetPeer().SetHandle(dup(aFd.Get()));
        m_pTransport->SetPeerAddr(CCmInetAddr("127.0.0.1", 443));
        const CmResult rv = m_pTransport->Begin(aContext, aName);
        EXPECT_EQ(rv == CM_OK ? CM_OK : CM_ERROR_OUT_OF_MEMORY, rv);
        if (rv != CM_OK)
            m_pTransport.Reset();
    }

    void Step() {
        if (!m_pTransport || m_bOpen)
            return;
        const talvo::CTlsSession::EResult result = m_pTransport->Handshake();
        m_bOpen = result == talvo::CTlsSession::DONE && m_pTransport->OpenWithSink(&m_Sink) == CM_OK;
        if (m_bOpen)
            Send();
        if (result == talvo::CTlsSession::FAILED) {
            EXPECT_STRNE("", m_pTransport->GetSession()->GetFailureText());
            m_pTransport.Reset();
        }
    }
    void Send() {
        CCmTransportParameter para;
        SendText(*m_pTransport, m_strToSend, &para);
        m_strToSend.erase(0, para.m_dwHaveSent);
    }
    bool HasAll() const { return m_Sink.m_strReceived == TEXT; }
    bool IsOver() const { return !m_pTransport || m_Sink.m_nDisconnects > 0 || HasAll(); }
    void End() {
        EXPECT_TRUE(TEXT.starts_with(m_Sink.m_strReceived));
        EXPECT_TRUE(m_Sink.m_nDisconnects == 0 || m_Sink.m_Reason == CM_ERROR_NETWORK_TLS_CUT ||
                    (m_Sink.m_Reason == CM_ERROR_NETWORK_SOCKET_ERROR && HasAll()))
            << m_Sink.m_Reason;
        if (m_bOpen)
            m_pTransport->Disconnect(CM_OK);
        m_pTransport.Reset();
    }

    bool m_bOpen = false;

private:
    CCmRefPtrT<CCmTransportSsl> m_pTransport;
    CTestSink m_Sink;
    std::string m_strToSend = TEXT;
};

// Of the version, and whether all allocations behind the failed one fail, too.
class OpenSslMemoryTest : public testing::TestWithParam<std::tuple<DWORD, bool>> {
protected:
    static constexpr long MOST_CACHED = 20;  // blocks of OpenSSL: texts of errors, queries for algorithms
    static constexpr long STRIDE = 181;

    OpenSslMemoryTest() { setenv("SSL_CERT_FILE", CTestCertificates::Get().PathOf("root.pem").c_str(), 1); }

    // Two connections; the second one resumes the session. TRUE: both were complete.
    bool Connect(long aFails = LONG_MAX) {
        const auto pClient = CTestCertificates::Get().MakeClient();
        CMemory::FailAt(aFails, AllFrom());
        bool bAll = true;
        for (int i = 0; i < 2; ++i)
            bAll = Exchange(pClient) && bAll;
        m_bFailed = CMemory::HasFailed();
        CMemory::FailAt(LONG_MAX, false);
        return bAll;
    }
    bool Exchange(const CCmRefPtrT<CCmSslContext>& aClient) {
        auto [fdClient, fdServer] = MakeSocketPair();
        CEnd client(m_Main.GetReactor(), std::move(fdClient), aClient, "localhost", Type());
        CEnd server(m_Main.GetReactor(), std::move(fdServer), m_pServer, nullptr, Type());
        RunUntil(m_Main.GetReactor(), [&] {
            client.Step();
            server.Step();
            if (!client.m_bOpen && !server.m_bOpen)
                m_lShaken = CMemory::s_lAllocations;
            return client.IsOver() && server.IsOver();
        });
        m_lOver = CMemory::s_lAllocations;
        const bool bAll = client.HasAll() && server.HasAll();
        client.End();
        server.End();
        EXPECT_EQ(0u, ERR_peek_error());
        return bAll;
    }
    // Whether the client completes its handshake. Its own allocations alone fail.
    bool IsAccepted(const CCmRefPtrT<CCmSslContext>& aClient, const char* aName, long aFails) {
        auto [fdClient, fdServer] = MakeSocketPair();
        CEnd server(m_Main.GetReactor(), std::move(fdServer), m_pServer, nullptr, Type());
        CMemory::FailAt(aFails, AllFrom());
        CEnd client(m_Main.GetReactor(), std::move(fdClient), aClient, aName, Type());
        for (int i = 0; i < 4 && !client.IsOver(); ++i) {
            client.Step();
            CMemory::s_bSpared = true;
            server.Step();
            CMemory::s_bSpared = false;
        }
        m_bFailed = CMemory::HasFailed();
        CMemory::FailAt(LONG_MAX, false);
        client.End();
        server.End();
        return client.m_bOpen;
    }
    // Until no allocation is left to fail. There are thousands: TALVO_EACH_ALLOCATION takes them all, for some minutes; the
    // tests take one of aStride, and all from aFirst to aLast.
    template <class Run>
    void ForEachFailure(long aStride, long aFirst, long aLast, const Run& aRun) {
        const long lStride = std::getenv("TALVO_EACH_ALLOCATION") ? 1 : aStride;
        m_bFailed = true;
        for (long lNumber = 1; m_bFailed && !HasFailure();) {
            SCOPED_TRACE(lNumber);
            aRun(lNumber);
            const long lNext = aFirst <= lNumber && lNumber < aLast ? lNumber + 1 : lNumber + lStride;
            lNumber = lNumber < aFirst ? std::min(lNext, aFirst) : lNext;
        }
    }
    static DWORD Type() { return std::get<0>(GetParam()); }
    static bool AllFrom() { return std::get<1>(GetParam()); }

    CMainThread m_Main;
    const CCmRefPtrT<CCmSslContext> m_pServer = CTestCertificates::Get().MakeServer();
    bool m_bFailed = false;  // an allocation of the last connection
    long m_lShaken = 0;      // allocations before the end of the last handshake
    long m_lOver = 0;        // and before the end of its connection
};

TEST_P(OpenSslMemoryTest, EachAllocationFailsAndTheConnectionEndsInOrder) {
    ASSERT_EQ(1, CMemory::s_nTaken);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(Connect());  // fills OpenSSL's caches
    const long lBlocks = CMemory::s_lBlocks;
    ForEachFailure(STRIDE, m_lShaken, m_lOver, [&](long aNumber) { EXPECT_TRUE(Connect(aNumber) || m_bFailed); });
    EXPECT_TRUE(Connect());
    EXPECT_GE(MOST_CACHED, CMemory::s_lBlocks - lBlocks);
}

// OpenSSL checks no name if its copy for the check finds no memory.
TEST_P(OpenSslMemoryTest, NoCertificateIsAcceptedForWantOfMemory) {
    const auto pClient = CTestCertificates::Get().MakeClient();
    EXPECT_TRUE(IsAccepted(pClient, "localhost", LONG_MAX));
    const char* pWrong = Type() == CM_TRANSPORT_TYPE_TLS_1_2 ? "unknown.test" : "127.0.0.2";
    ForEachFailure(AllFrom() ? STRIDE : 1, 0, 0, [&](long aNumber) { EXPECT_FALSE(IsAccepted(pClient, pWrong, aNumber)); });
}

INSTANTIATE_TEST_SUITE_P(Versions, OpenSslMemoryTest,
                         testing::Combine(testing::Values(CM_TRANSPORT_TYPE_TLS_1_2, CM_TRANSPORT_TYPE_TLS_1_3),
                                          testing::Bool()));

}  // namespace
