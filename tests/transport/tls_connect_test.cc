#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"

TEST(TlsConnectTest, AClientReportsWhyThereIsNoConnection) {
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    constexpr DWORD TYPE = 0x0802000C;  // length-prefixed messages over TLS, behind a proxy
    CTestConnectSink server, sink;
    CCmInetAddr addr, path;
    path.SetPath("@nowhere");
    const auto pAcceptor = network.MakeAcceptor(TYPE);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pAcceptor->StartListen(&server, Loopback())) << "no certificate";
    Set(*cm_get_connect_options(pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeServer());
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, Loopback()));
    pAcceptor->GetListenAddr(addr);
    const auto pConnector = network.MakeConnector(TYPE);
    ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
    Set(options, CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeClient());
    const CCmString strOfAddress = addr.GetType() == AF_UNIX ? "localhost" : "";  // a path gives no name
    const std::tuple<CCmInetAddr, CCmString, CmResult, const char*> CASES[] = {
        {addr, "other.test", CM_ERROR_NETWORK_TLS_CERTIFICATE, "hostname mismatch"},
        {addr, "localhost.", CM_OK, ""},
        {addr, strOfAddress, CM_OK, ""},
        {path, "", CM_ERROR_INVALID_ARG, "there is no name for the server's certificate"}};
    for (const auto& [addrPeer, strName, reason, pText] : CASES) {
        const size_t stBefore = sink.Count();
        Set(options, CM_OPT_CONNECT_SERVER_NAME, strName);
        pConnector->AsycConnect(&sink, addrPeer);
        network.RunUntil([&] { return sink.Count() > stBefore; });
        EXPECT_EQ(reason, sink.m_Reasons.back()) << strName;
        EXPECT_STREQ(pText, Get<CCmFailure>(options, CM_OPT_CONNECT_FAILURE).GetText());
    }
}
