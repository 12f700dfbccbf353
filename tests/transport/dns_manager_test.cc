#include "tests/support/dns_helpers.h"

using DnsManagerTest = CDnsTest;

TEST_F(DnsManagerTest, LiteralsAndBadNamesAreAnsweredAtOnce) {
    DnsRecordPtr pRecord;
    CTestObserver observer;
    for (const char* szLiteral : {"10.1.2.3", "0x0a010203", "10.66051"}) {
        ASSERT_EQ(CM_OK, Ask(szLiteral, pRecord, &observer)) << szLiteral;
        EXPECT_EQ("10.1.2.3", TextOf(pRecord));
    }
    EXPECT_EQ(CM_OK, Ask("255.255.255.255", pRecord, &observer, TRUE));
    const std::string strLabel = std::string(63, 'a') + ".", strLongest = strLabel + strLabel + strLabel + std::string(61, 'a');
    ASSERT_EQ(CCmDnsManager::MAX_NAME_LENGTH, strLongest.size());
    for (const std::string& strBad : {std::string(), std::string("."), std::string("a b"), std::string("a\0b", 3),
                                      std::string("a\nb"), std::string("::1%lo"), strLongest + "a", strLongest + "a."}) {
        EXPECT_EQ(CM_ERROR_INVALID_ARG, Ask(strBad, pRecord, &observer)) << strBad;
        EXPECT_FALSE(pRecord);
    }
    EXPECT_EQ(CCmDnsRecord::FAILED, Resolve(strLongest + ".")->GetState());
    EXPECT_EQ(CM_ERROR_NOT_FOUND, CCmDnsManager::Instance()->CancelResolve(&observer));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmDnsManager::Instance()->CancelResolve(nullptr));
}

TEST_F(DnsManagerTest, AnObserverIsCalledInTheThreadThatWasNamed) {
    CScopedThread user(CScopedThread::TASK);
    CTestObserver observer;
    DnsRecordPtr pRecord;
    CCmDnsManager& manager = *CCmDnsManager::Instance();
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, manager.AsyncResolve(pRecord.ParaOut(), "localhost", &observer, FALSE, user.Get()));
    YieldUntil([&] { return observer.m_dwThread != 0; });
    EXPECT_EQ(user->GetThreadId(), observer.m_dwThread);
    // A thread that the library does not know cannot be called, but may look.
    std::thread([&] {
        EXPECT_EQ(CM_ERROR_NULL_POINTER, Ask("other.localhost", pRecord, &observer));
        EXPECT_EQ(CM_OK, Ask("localhost", pRecord));
    }).join();
}

TEST_F(DnsManagerTest, TheEndOfTheNetworkThreadIsAFailureThatIsNotKept) {
    const CSilentServer silent;
    m_Keys["Servers"] = silent.m_strAddress;
    Configure();
    CTestObserver observer;
    DnsRecordPtr pRecord;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Ask("a.test", pRecord, &observer));
    Settle();
    EXPECT_TRUE(observer.m_Records.empty());
    m_Network.EndNetworkThread();
    RunUntil([&] { return !observer.m_Records.empty(); });
    EXPECT_EQ(CCmDnsRecord::FAILED, observer.m_Records[0]->GetState());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Ask("a.test", pRecord, &observer));

    // The next network thread takes over.
    ASSERT_NE(nullptr, CCmConnectionManager::Instance());
    EXPECT_EQ("::1 127.0.0.1", TextOf(Resolve("localhost")));
}
