// The differences between the families of addresses.
#include <netinet/ip.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "talvo/base/config.h"
#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/network_fixture.h"

namespace {

class FamiliesTest : public testing::Test {
protected:
    CmResult Listen(const CCmInetAddr& aAddr, DWORD aType = CCmConnectionManager::CTYPE_TCP) {
        m_pAcceptor = m_Network.MakeAcceptor(aType);
        const CmResult rv = m_pAcceptor->StartListen(&m_Accepted, aAddr);
        m_pAcceptor->GetListenAddr(m_Addr);
        return rv;
    }
    CmResult ListenOnPath(const std::string& aPath) {
        CCmInetAddr addr;
        EXPECT_EQ(CM_OK, addr.SetPath(aPath.c_str()));
        return Listen(addr);
    }
    // The mode of a path, 0 for none.
    mode_t ModeOf(const std::string& aPath) const {
        struct stat file {};
        return lstat(aPath.c_str(), &file) == 0 ? file.st_mode : 0;
    }

    const CCmTempDir m_Dir;
    const std::string m_strPath = m_Dir.PathOf("socket");
    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CTestConnectSink m_Accepted;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmInetAddr m_Addr;
};

TEST_F(FamiliesTest, AnIpv6ListenerHasPeersOfBothFamilies) {
    int nField = 0;
    socklen_t length = sizeof nField;
    for (const DWORD dwType : {CCmConnectionManager::CTYPE_TCP, CCmConnectionManager::CTYPE_UDP}) {
        for (const char* pHost : {"127.0.0.1", "::1"}) {
            m_Accepted.m_Transports.clear();
            ASSERT_EQ(CM_OK, Listen(CCmInetAddr("::", 0), dwType));
            const auto pClient = m_Network.Connect(CCmInetAddr(pHost, m_Addr.GetPort()), dwType);
            CTestSink client(*pClient);
            EXPECT_EQ(CM_OK, SendText(*pClient, "x"));
            m_Network.RunUntil([&] { return m_Accepted.m_Transports.size() == 1; });
            ICmTransport& theirs = *m_Accepted.m_Transports[0];
            CTestSink server(theirs);
            EXPECT_EQ(Get<CCmInetAddr>(*pClient, CM_OPT_TRANSPORT_LOCAL_ADDR),
                      Get<CCmInetAddr>(theirs, CM_OPT_TRANSPORT_PEER_ADDR));
            EXPECT_EQ(pHost, Get<CCmInetAddr>(theirs, CM_OPT_TRANSPORT_PEER_ADDR).GetIpDisplayName());
            EXPECT_EQ(CM_OK, SendText(theirs, "answer"));
            m_Network.RunUntil([&] { return client.m_strReceived == "answer"; });
            Set(theirs, CM_OPT_TRANSPORT_TOS, DWORD{0x20});
            const HANDLE fd = Get<HANDLE>(theirs, CM_OPT_TRANSPORT_FD);
            EXPECT_EQ(0, getsockopt(fd, IPPROTO_IP, IP_TOS, &nField, &length));
            EXPECT_EQ(0x20, nField);
            EXPECT_EQ(0, getsockopt(fd, IPPROTO_IPV6, IPV6_TCLASS, &nField, &length));
            EXPECT_EQ(0x20, nField);
            CTestConnectSink refused;
            CCmInetAddr addrOther(*pHost == ':' ? "127.0.0.1" : "::1", 0);
            const auto pConnector = m_Network.MakeConnector(dwType);
            pConnector->AsycConnect(&refused, CCmInetAddr(pHost, 1), nullptr, &addrOther);
            m_Network.RunUntil([&] { return refused.Count() == 1; });
            EXPECT_EQ(EAFNOSUPPORT,
                      Get<CCmFailure>(*cm_get_connect_options(pConnector.Get()), CM_OPT_CONNECT_FAILURE).GetErrno());
        }
    }
}

TEST_F(FamiliesTest, OnlyASocketWithoutAProcessIsReplaced) {
    ASSERT_EQ(CM_OK, ListenOnPath(m_strPath));
    EXPECT_EQ(S_IFSOCK | 0660u, ModeOf(m_strPath));
    const auto pFirst = m_pAcceptor;
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, ListenOnPath(m_strPath)) << "a process answers";
    EXPECT_EQ(EADDRINUSE, Get<CCmFailure>(*cm_get_connect_options(m_pAcceptor.Get()), CM_OPT_CONNECT_FAILURE).GetErrno());
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, ListenOnPath(m_Dir.Write("file", "text")));
    EXPECT_EQ("text", m_Dir.Read("file"));
    pFirst->StopListen(CM_OK);
    EXPECT_EQ(0u, ModeOf(m_strPath));
    {
        const CTestListener stale(1, 4096, m_Addr);  // leaves its path
    }
    {
        const CTestFd starting(open(m_Dir.Write("socket.starting", "").c_str(), O_RDONLY));
        EXPECT_EQ(0, flock(starting.Get(), LOCK_EX));
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, ListenOnPath(m_strPath)) << "another process starts";
    }
    EXPECT_EQ(CM_OK, load_config_file(m_Dir.Write("talvo.cfg", "[Transport]\nUnixMode=0606\n").c_str()));
    EXPECT_EQ(CM_OK, ListenOnPath(m_strPath));
    EXPECT_EQ(S_IFSOCK | 0606u, ModeOf(m_strPath));
    EXPECT_EQ(0u, ModeOf(m_strPath + ".starting"));
    std::filesystem::remove(m_strPath);
    m_Dir.Write("socket", "another's");
    m_pAcceptor->StopListen(CM_OK);
    EXPECT_EQ("another's", m_Dir.Read("socket"));
    load_config_file("");
}

TEST_F(FamiliesTest, AUnixPeerHasCredentialsAndAnOrderlyEnd) {
    const std::string strName = "@talvo-" + std::to_string(getpid());
    for (const std::string& strPath : {m_strPath, strName}) {
        m_Accepted.m_Transports.clear();
        ASSERT_EQ(CM_OK, ListenOnPath(strPath));
        const auto pClient = m_Network.Connect(m_Addr);
        m_Network.RunUntil([&] { return m_Accepted.m_Transports.size() == 1; });
        ICmTransport& theirs = *m_Accepted.m_Transports[0];
        CTestSink client(*pClient), server(theirs);
        for (ICmTransport* pEnd : {pClient.Get(), &theirs}) {
            EXPECT_EQ(getpid(), Get<ucred>(*pEnd, CM_OPT_TRANSPORT_PEER_CREDENTIALS).pid);
            DWORD dwTos = 0;
            EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pEnd->SetOption(CM_OPT_TRANSPORT_TOS, &dwTos));
        }
        EXPECT_EQ(strPath, Get<CCmInetAddr>(*pClient, CM_OPT_TRANSPORT_PEER_ADDR).GetIpDisplayName());
        EXPECT_EQ("", cm_address_text(Get<CCmInetAddr>(theirs, CM_OPT_TRANSPORT_PEER_ADDR)));
        EXPECT_EQ(CM_OK, SendText(*pClient, "unread"));
        EXPECT_EQ(CM_OK, SendText(theirs, "last"));
        theirs.Disconnect(CM_OK);
        m_Network.RunUntil([&] { return client.m_nDisconnects == 1; });
        EXPECT_EQ("last", client.m_strReceived);
        EXPECT_FALSE(Get<CCmFailure>(*pClient, CM_OPT_TRANSPORT_LAST_FAILURE));
    }
    ucred peer;
    ASSERT_EQ(CM_OK, Listen(CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Network.Connect(m_Addr)->GetOption(CM_OPT_TRANSPORT_PEER_CREDENTIALS, &peer));
    CCmInetAddr path;
    EXPECT_EQ(CM_OK, path.SetPath(m_strPath.c_str()));
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, Listen(path, CCmConnectionManager::CTYPE_UDP));
}

// The system reports no room there, so the connector tries again.
TEST_F(FamiliesTest, AFullPathIsTriedAgain) {
    const CTestListener full(0, 4096, OwnPath(0));
    const CTestFd client = ConnectPlain(full.Addr());
    CTestConnectSink sink;
    const auto pConnector = m_Network.MakeConnector();
    pConnector->AsycConnect(&sink, full.Addr());
    m_Network.RunPosted();
    EXPECT_EQ(0u, sink.Count());
    const CTestFd first = full.Accept();
    m_Network.RunUntil([&] { return sink.Count() == 1; });
    EXPECT_EQ(CM_OK, sink.m_Reasons[0]);
}

}  // namespace
