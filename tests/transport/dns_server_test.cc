#include "tests/support/dns_server.h"

#include "tests/support/dns_helpers.h"

namespace {

// The only server is a real one.
class DnsServerTest : public CDnsTest {
protected:
    static constexpr int TTL = 30;

    void Serve(const std::string& aNames) {
        m_Server.Start(aNames);
        m_Keys["Servers"] = m_Server.GetAddress();
        Configure();
    }

    CTestDnsServer m_Server{TTL};
};

}  // namespace

TEST_F(DnsServerTest, AnswersAreKeptForTheirTimeAndAskedForAnewBehindIt) {
    Serve("10.0.0.1 one.test\n10.0.0.1 two.test\n10.0.0.2 two.test\n");
    EXPECT_EQ("10.0.0.1", TextOf(Resolve("one.test")));
    EXPECT_EQ(2u, Resolve("TWO.test.")->GetAddresses().size());
    DnsRecordPtr pRecord;
    ASSERT_EQ(CM_OK, Ask("one.test", pRecord));
    EXPECT_EQ(DWORD{TTL}, pRecord->GetTimeToLive());

    m_Server.Start("10.0.0.7 one.test\n");
    m_Clock.Advance(CCmTimeValue(TTL - 1));
    EXPECT_EQ("10.0.0.1", TextOf(Resolve("one.test")));
    EXPECT_EQ("10.0.0.7", TextOf(Resolve("one.test", TRUE)));
    EXPECT_EQ("10.0.0.7", TextOf(Resolve("one.test")));
    m_Server.Start("10.0.0.8 one.test\n");
    m_Clock.Advance(CCmTimeValue(TTL));
    EXPECT_EQ("10.0.0.8", TextOf(Resolve("one.test")));
}

TEST_F(DnsServerTest, TheKeyAllowsOneFamily) {
    WriteHosts("10.0.0.2 file.test\n::2 file.test\n10.0.0.1 six.test\n10.0.0.4 localhost\n");
    m_Server.Start("10.0.0.1 both.test\n2001:db8::1 both.test\n2001:db8::2 both.test\n2001:db8::3 six.test\n");
    m_Keys["Servers"] = m_Server.GetAddress();
    for (const auto& [pFamily, pBoth, pFile, pSix] : {std::tuple("4", "10.0.0.1", "10.0.0.2", "10.0.0.1"),
                                                      std::tuple("6", "2001:db8::1 2001:db8::2", "::2", "2001:db8::3")}) {
        m_Keys["AddressFamily"] = pFamily;
        Configure();
        EXPECT_EQ(pBoth, TextOf(Resolve("both.test")));
        EXPECT_EQ(pFile, TextOf(Resolve("file.test")));
        EXPECT_EQ(pSix, TextOf(Resolve("six.test")));
        EXPECT_EQ(*pFamily == '4' ? "10.0.0.4" : "::1", TextOf(Resolve("localhost")));
    }
}

TEST_F(DnsServerTest, ServersAndSearchDomainsComeFromTheResolverFile) {
    m_Server.Start("10.0.0.1 one.corp.test\n");
    m_Keys["Servers"] = m_Server.GetAddress();
    m_Dir.Write("resolv.conf", "search corp.test\n");
    Configure();
    EXPECT_EQ("10.0.0.1", TextOf(Resolve("one")));
    EXPECT_EQ(CCmDnsRecord::FAILED, Resolve("one.")->GetState());
    m_Dir.Write("resolv.conf", "search corp.invalid\n");
    m_Clock.Advance(CCmTimeValue(1));
    EXPECT_EQ(CCmDnsRecord::FAILED, Resolve("one")->GetState());

    // A value that is no list of servers is ignored with a warning. The file is used instead, and it has no server.
    CCmTraceCapture trace;
    m_Keys["Servers"] = "not an address";
    Configure();
    EXPECT_EQ(CCmDnsRecord::FAILED, Resolve("one.corp.test")->GetState());
    EXPECT_EQ(1u, trace.Count("not a list of servers, ignored. Servers=not an address"));
}

TEST_F(DnsServerTest, MoreNamesThanFitOnTheWireAreAllAnswered) {
    CCmClock::Replace(nullptr);  // questions that were lost are asked again
    m_Keys["TimeoutMs"] = "2000";
    m_Keys["Tries"] = "10";
    const auto addressOf = [](int aName) { return "10.0." + std::to_string(aName / 250) + "." + std::to_string(aName % 250); };
    std::string strNames;
    for (int i = 0; i < 1000; ++i)
        strNames += addressOf(i) + " m" + std::to_string(i) + ".test\n";
    Serve(strNames);
    std::vector<CTestObserver> observers(1000);
    for (int i = 0; i < 1000; ++i) {
        DnsRecordPtr pRecord;
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Ask("m" + std::to_string(i) + ".test", pRecord, &observers[i]));
        if (i == 500)
            CCmDnsManager::Instance()->Refresh();  // what is under way begins anew, and each observer is still called once
    }
    for (int i = 0; i < 1000; ++i) {
        RunUntil([&] { return !observers[i].m_Records.empty(); });
        EXPECT_EQ(addressOf(i), TextOf(observers[i].m_Records[0]));
    }
    Settle();
    for (const CTestObserver& observer : observers)
        EXPECT_EQ(1u, observer.m_Records.size());
}
