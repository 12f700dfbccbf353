// A forward session in the test's thread, over transports that the test plays.
#pragma once

#include "talvo/connection/connection_manager.h"
#include "talvo/session/forward_session.h"
#include "talvo/testing/fake_clock.h"
#include "tests/connection/conn_end.h"

// Logs the upcalls; m_Inside runs in each.
class CForwardLogSink : public ICmForwardSink {
public:
    void OnReceiver(DWORD aId, CmResult aReason) override {
        Write("gone " + std::to_string(aId & 0xFFFF) + " " + std::to_string(aReason));
    }
    void OnForward() override { Write("forward"); }
    void OnJoin(DWORD aId) override { Write("join " + std::to_string(aId & 0xFFFF)); }
    void Write(const std::string& aLine) {
        m_Lines.push_back(aLine);
        m_Inside(aLine);
    }
    Lines Take() { return std::exchange(m_Lines, {}); }

    Lines m_Lines;
    std::function<void(const std::string&)> m_Inside = [](const std::string&) {};
};

inline CCmForwardReceiverOptions Options(ECmForwardPolicy aPolicy, DWORD aMaxMessages = 0, DWORD aMilliseconds = 0) {
    CCmForwardReceiverOptions options;
    options.m_Policy = aPolicy;
    options.m_dwMaxMessages = aMaxMessages;
    options.m_dwMaxMilliseconds = aMilliseconds;
    return options;
}

inline CmResult ForwardText(ICmForwardSession& aSession, const std::string& aText, uint64_t aKey = 0, DWORD aFlags = 0) {
    CCmMessageBlock block = ViewOf(aText);
    const CCmForwardHeader header{aKey, aFlags};
    const CmResult rv = aSession.Forward(block, &header);
    EXPECT_EQ(rv == CM_OK ? 0 : aText.size(), block.GetChainedLength());
    return rv;
}

inline CCmForwardStatistics StatisticsOf(ICmForwardSession& aSession, DWORD aId = 0) {
    CCmForwardStatistics statistics;
    EXPECT_EQ(CM_OK, aSession.GetStatistics(statistics, aId));
    EXPECT_EQ(statistics.m_Due, statistics.m_Sent + statistics.m_Dropped + statistics.m_Conflated + statistics.m_Lag);
    return statistics;
}

class ForwardTest : public ConnTest {
protected:
    ForwardTest() { EXPECT_EQ(CM_OK, CCmConnectionManager::CreateForwardSession_i(&m_Sink, m_pSession.ParaOut())); }

    void Turn() {
        for (int i = 0; i < 3; ++i)
            m_Main.RunOnce();
    }
    // An open transport as a receiver.
    DWORD Add(CFakeLower& aLower, const CCmForwardReceiverOptions& aOptions = {}) {
        DWORD dwId = 0;
        if (!aLower.m_pSink)
            aLower.OpenWithSink(&m_User);
        EXPECT_EQ(CM_OK, m_pSession->AddReceiver(&aLower, aOptions, dwId));
        return dwId;
    }
    CmResult Forward(const std::string& aText, uint64_t aKey = 0, DWORD aFlags = 0) {
        return ForwardText(*m_pSession, aText, aKey, aFlags);
    }
    void Option(DWORD aCommand, DWORD aValue) { EXPECT_EQ(CM_OK, m_pSession->SetOption(aCommand, &aValue)); }

    CForwardLogSink m_Sink;
    CTestSink m_User;
    CCmRefPtrT<ICmForwardSession> m_pSession;
};
