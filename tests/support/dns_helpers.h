// A process with the library that looks names up where a test sets it, and its observers.
#pragma once

#include "talvo/base/config.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/transport/dns/dns_manager.h"
#include "tests/support/network_fixture.h"

using DnsRecordPtr = CCmRefPtrT<CCmDnsRecord>;

// Collects its notifications.
class CTestObserver : public ICmObserver {
public:
    ~CTestObserver() override { CCmDnsManager::Instance()->CancelResolve(this); }

    void OnObserve(const char* aTopic, void* aData) override {
        EXPECT_STREQ("DnsManager", aTopic);
        m_Records.emplace_back(static_cast<CCmDnsRecord*>(aData));
        m_dwThread = CCmThreadManager::GetThreadSelfId();
    }

    std::vector<DnsRecordPtr> m_Records;
    std::atomic<DWORD> m_dwThread{0};  // of the last notification
};

// The addresses of a record, separated by blanks.
inline std::string TextOf(const DnsRecordPtr& aRecord) {
    std::string strText;
    for (const talvo::CIpBytes& ip : aRecord->GetAddresses())
        strText += (strText.empty() ? "" : " ") + ip.GetText();
    return strText;
}

// A DNS server that never answers.
struct CSilentServer {
    const CTestFd m_Fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const std::string m_strAddress = "127.0.0.1:" + std::to_string(Bind(m_Fd, CCmInetAddr("127.0.0.1", 0)).GetPort());
};

// The main thread with its loop, and a network thread. Time stands still unless Advance moves it. The time-outs of the servers
// use the system's time: they are long, so that no answer comes too late. Names are looked up in the test's own hosts file and,
// until it sets a server, nowhere else.
class CDnsTest : public testing::Test {
protected:
    CDnsTest() {
        m_Keys["HostsFile"] = m_Dir.Write("hosts", "");
        m_Keys["ResolverFile"] = m_Dir.Write("resolv.conf", "");
        m_Keys["Servers"] = "127.0.0.1:1";
        m_Keys["TimeoutMs"] = "60000";
        Configure();
    }
    ~CDnsTest() override { load_config_file(""); }

    // Applies the keys at once.
    void Configure() {
        std::string strText = "[Dns]\n";
        for (const auto& [strKey, strValue] : m_Keys)
            strText += strKey + "=" + strValue + "\n";
        EXPECT_EQ(CM_OK, load_config_file(m_Dir.Write("talvo.cfg", strText).c_str()));
        CCmDnsManager::Instance()->Refresh();
    }

    void WriteHosts(const std::string& aText) {
        m_Dir.Write("hosts", aText);
        CCmDnsManager::Instance()->Refresh();
    }

    template <class Condition>
    void RunUntil(Condition aCondition) const {
        m_Network.RunUntil(aCondition);
    }

    // Completes the pending events of the two threads.
    void Settle() const {
        for (int i = 0; i < 3; ++i) {
            m_Network.InNetwork([] {});
            m_Network.RunPosted();
        }
    }

    CmResult Ask(const std::string& aName, DnsRecordPtr& aRecord, ICmObserver* aObserver = nullptr, BOOL aForced = FALSE) {
        return CCmDnsManager::Instance()->AsyncResolve(aRecord.ParaOut(), aName, aObserver, aForced);
    }

    // The current record of the name, from the cache or after a look-up.
    DnsRecordPtr Resolve(const std::string& aName, BOOL aForced = FALSE) {
        CTestObserver observer;
        DnsRecordPtr pRecord;
        const CmResult rv = Ask(aName, pRecord, &observer, aForced);
        if (rv == CM_OK)
            return pRecord;
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, rv);
        RunUntil([&] { return !observer.m_Records.empty(); });
        return observer.m_Records.empty() ? new CCmDnsRecord(aName, {}) : observer.m_Records.front();
    }

    CCmFakeClock m_Clock;
    CCmTempDir m_Dir;
    std::map<std::string, std::string> m_Keys;  // of the section "Dns"
    CTestNetwork m_Network;
};
