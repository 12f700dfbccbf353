#include "talvo/http/client/proxy_authentication.h"
#include "talvo/proxy/credential_desk.h"
#include "tests/support/network_fixture.h"

using namespace talvo;

extern "C" int32_t set_asker_from_c(int32_t* aAnswered);  // functions.c

namespace {

constexpr const char* PROXY = "http://proxy.example:3128";

struct CAsked {
    uint32_t m_dwId;
    std::string m_strText;
};

void Collect(void* aArg, uint32_t aId, const char* aProxy, const char* aRealm, const char* aScheme, int aRefused) {
    static_cast<std::vector<CAsked>*>(aArg)->push_back(
        {aId, std::string(aProxy) + " " + aRealm + " " + aScheme + (aRefused ? " refused" : "")});
}

// A request that waits for credentials.
struct CRequest final : ICmProxyCredentialsSink {
    ~CRequest() { CCredentialDesk::Instance().Cancel(this); }

    CmResult Get(const std::string& aRealm = "r", BOOL aRefused = FALSE) {
        CCmCredentials credentials;
        const CmResult rv = ICmProxyCredentials::Get()->GetCredentials({m_strProxy, aRealm, "basic", aRefused}, credentials,
                                                                       m_bAsk ? this : nullptr);
        if (rv == CM_OK)
            m_strGot = credentials.m_Password.Get();
        return rv;
    }
    void Refuse(const CCmCredentials& aCredentials) const {
        ICmProxyCredentials::Get()->Forget({PROXY, "r", "basic", FALSE}, aCredentials);
    }
    void OnProxyCredentials(CmResult aReason, const CCmCredentials& aCredentials) override {
        m_strGot += std::to_string(aReason) + ":" + std::string(aCredentials.m_Password.Get());
    }

    BOOL m_bAsk = TRUE;
    CCmString m_strProxy = PROXY;
    std::string m_strGot;
};

// The main thread asks the user and waits for the answers.
class ProxyCredentialsTest : public testing::Test {
protected:
    ProxyCredentialsTest() { EXPECT_EQ(0, cm_proxy_set_asker(Collect, &m_Asked)); }
    ~ProxyCredentialsTest() override {
        cm_proxy_set_asker(nullptr, nullptr);
        cm_proxy_forget_credentials(PROXY);
    }
    void Run() {
        for (int i = 0; i < 3; ++i)
            m_Main.RunOnce();
    }

    CCmFakeClock m_Clock;
    CMainThread m_Main;
    std::vector<CAsked> m_Asked;
    CRequest m_First;
    CRequest m_Second;
};

}  // namespace

TEST_F(ProxyCredentialsTest, OneQuestionServesAllThatWaitAndItsAnswerIsStored) {
    CRequest other, elsewhere;
    elsewhere.m_strProxy = "http://other.example:3128";
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get("a\x1b[2Jb"));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_First.Get());
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Second.Get("a\x1b[2Jb"));
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, other.Get("c", TRUE));
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, elsewhere.Get("a\x1b[2Jb"));
    EXPECT_TRUE(m_Asked.empty());  // not inside the call
    Run();
    ASSERT_EQ(3u, m_Asked.size());
    EXPECT_EQ("http://proxy.example:3128 a?[2Jb basic", m_Asked[0].m_strText);
    EXPECT_EQ("http://proxy.example:3128 c basic refused", m_Asked[1].m_strText);
    EXPECT_EQ(10008, cm_proxy_answer(m_Asked[0].m_dwId, "u", nullptr));
    EXPECT_EQ(10008, cm_proxy_answer(m_Asked[0].m_dwId, "", "p"));
    EXPECT_EQ(0, cm_proxy_answer(m_Asked[0].m_dwId, "u", "p"));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_answer(m_Asked[0].m_dwId, "u", "p"));
    EXPECT_EQ(CM_OK, CCredentialDesk::Instance().Cancel(&m_Second));  // the answer is on its way
    EXPECT_EQ(0, cm_proxy_answer(m_Asked[1].m_dwId, nullptr, nullptr));
    Run();
    EXPECT_EQ("0:p", m_First.m_strGot);
    EXPECT_EQ("", m_Second.m_strGot);
    EXPECT_EQ("20009:", other.m_strGot);
    EXPECT_EQ("", elsewhere.m_strGot) << "an answer is for one proxy";
    EXPECT_EQ(CM_OK, m_Second.Get("a?[2Jb"));
    EXPECT_EQ("p", m_Second.m_strGot);
}

TEST_F(ProxyCredentialsTest, RefusedOnesAreForgottenUnlessOthersAreStored) {
    m_First.m_bAsk = FALSE;
    CCmCredentials refused;
    ASSERT_EQ(CM_OK, refused.Set("u", "old"));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_First.Get());
    EXPECT_EQ(0, cm_proxy_set_credentials("PROXY.example:3128", nullptr, "u", "old"));
    EXPECT_EQ(0, cm_proxy_set_credentials(PROXY, "r", "u", "new"));
    EXPECT_EQ(CM_OK, m_First.Get("any"));
    EXPECT_EQ("old", m_First.m_strGot);
    m_First.Refuse(refused);
    EXPECT_EQ(CM_OK, m_First.Get());
    EXPECT_EQ("new", m_First.m_strGot);
    ASSERT_EQ(CM_OK, refused.Set("u", "new"));
    m_First.Refuse(refused);
    EXPECT_EQ(CM_OK, m_First.Get());
    EXPECT_EQ("old", m_First.m_strGot);
    EXPECT_EQ(0, cm_proxy_forget_credentials(PROXY));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_forget_credentials(PROXY));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_First.Get());
}

// By the time, by the end of the asker's thread, by its removal.
TEST_F(ProxyCredentialsTest, AQuestionEndsWithoutAnAnswer) {
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get());
    m_Clock.Advance(CCmTimeValue(119));
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_Second.Get());
    Run();
    EXPECT_EQ("", m_First.m_strGot);
    m_Clock.Advance(CCmTimeValue(1));
    Run();
    EXPECT_EQ("20009:", m_First.m_strGot);
    EXPECT_EQ("20009:", m_Second.m_strGot);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_answer(m_Asked.at(0).m_dwId, "u", "p"));

    ACmThread* pThread = nullptr;
    ASSERT_EQ(CM_OK, CCmThreadManager::Instance()->CreateUserTaskThread(pThread));
    RunIn(pThread->GetLink(), [&] { EXPECT_EQ(0, cm_proxy_set_asker([](void*, uint32_t, auto...) {}, nullptr)); });
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get());
    pThread->Stop();
    pThread->Join();
    pThread->Destory(CM_OK);
    Run();
    EXPECT_EQ("20009:20009:", m_First.m_strGot);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_First.Get());

    cm_proxy_set_asker(Collect, &m_Asked);
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get());
    std::vector<CAsked> asked;
    cm_proxy_set_asker(Collect, &asked);  // before the first one was called
    Run();
    EXPECT_EQ(1u, m_Asked.size());
    EXPECT_EQ(1u, asked.size());
    cm_proxy_set_asker(nullptr, nullptr);
    Run();
    EXPECT_EQ("20009:20009:20009:", m_First.m_strGot);
    int32_t nAnswered = -1;
    EXPECT_EQ(0, set_asker_from_c(&nAnswered));
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get());
    Run();
    EXPECT_EQ("20009:20009:20009:0:from C", m_First.m_strGot);
    EXPECT_EQ(0, nAnswered);
}

TEST_F(ProxyCredentialsTest, FunctionsRefuseWhatTheyCannotUse) {
    const std::string strLong(1025, 'x');
    for (const char* szProxy : {"", "direct://", "ftp://p", "http://u:p@p", "a,b", "http://p/x"}) {
        EXPECT_EQ(10008, cm_proxy_set_credentials(szProxy, nullptr, "u", "p")) << szProxy;
        EXPECT_EQ(10008, cm_proxy_forget_credentials(szProxy)) << szProxy;
    }
    EXPECT_EQ(10008, cm_proxy_set_credentials(nullptr, "", "u", "p"));
    EXPECT_EQ(10008, cm_proxy_forget_credentials(nullptr));
    for (const auto& [szRealm, szUser, szPassword] : std::vector<std::array<const char*, 3>>{{"", nullptr, "p"},
                                                                                             {"", "u", nullptr},
                                                                                             {"", "", "p"},
                                                                                             {"", "u\n", "p"},
                                                                                             {strLong.c_str(), "u", "p"},
                                                                                             {"", strLong.c_str(), "p"},
                                                                                             {"", "u", strLong.c_str()}})
        EXPECT_EQ(10008, cm_proxy_set_credentials(PROXY, szRealm, szUser, szPassword));
    int nStored = 0;
    const auto name = [](int aNumber) { return "socks5://h" + std::to_string(aNumber); };
    while (nStored < 100 && cm_proxy_set_credentials(name(nStored).c_str(), nullptr, "u", "p") == 0)
        ++nStored;
    EXPECT_EQ(64, nStored);
    ASSERT_EQ(CM_ERROR_WOULD_BLOCK, m_First.Get());
    Run();
    EXPECT_EQ(0, cm_proxy_answer(m_Asked.at(0).m_dwId, "u", "p"));  // serves the request and is not stored
    Run();
    EXPECT_EQ("0:p", m_First.m_strGot);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_forget_credentials(PROXY));
    while (nStored-- > 0)
        EXPECT_EQ(0, cm_proxy_forget_credentials(name(nStored).c_str()));
    std::thread([] { EXPECT_EQ(10005, cm_proxy_set_asker(Collect, nullptr)); }).join();
    std::thread([this] { EXPECT_EQ(CM_ERROR_NULL_POINTER, m_Second.Get()); }).join();
}
