#include "talvo/transport/tls/ssl_context.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"
#include "tests/support/tls_pair.h"

namespace {

class TlsContextTest : public testing::Test {
protected:
    CTlsPair Shake(const CCmRefPtrT<CCmSslContext>& aClient, const CCmRefPtrT<CCmSslContext>& aServer,
                   const char* aName = "localhost", DWORD aType = CM_TRANSPORT_TYPE_TLS) {
        return CTlsPair(m_Main.GetReactor(), aClient, aServer, aName, aType);
    }

    CMainThread m_Main;
    CCmTraceCapture m_Trace;
};

TEST_F(TlsContextTest, EachTypeMakesItsVersion) {
    const auto& certificates = CTestCertificates::Get();
    const auto pClient = certificates.MakeClient(), pServer = certificates.MakeServer();
    for (const auto& [dwType, dwVersion] : {std::pair<DWORD, DWORD>(4, CM_TLS_1_2), {8, CM_TLS_1_3}, {12, CM_TLS_1_3}}) {
        CTlsPair pair = Shake(pClient, pServer, "localhost", dwType);
        ASSERT_TRUE(pair.m_Client.IsDone() && pair.m_Server.IsDone()) << pair.m_Client.Session().GetFailureText();
        EXPECT_EQ(dwVersion, pair.m_Client.Info().m_dwVersion);
        EXPECT_TRUE(pair.m_Client.Info().m_bVerified);
        EXPECT_EQ("localhost", pair.m_Server.Info().m_strServerName);
    }
}

}  // namespace
