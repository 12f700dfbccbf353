// A sink for HTTP and file channels.
#pragma once

#include "talvo/http/channel/channel.h"
#include "tests/support/test.h"

// Collects a channel's upcalls and checks their order; each upcall may also run a callable.
class CTestChannelSink : public ICmChannelSink {
public:
    void OnConnect(CmResult aReason, ICmChannel*) override {
        EXPECT_EQ(0, aReason + m_nConnects++ + m_nReceives + m_nDisconnects);
        m_Connect();
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        EXPECT_EQ(1, m_nConnects + m_nDisconnects);
        ++m_nReceives;
        m_strBody += aData.FlattenChained();
        m_Receive();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Send(); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        EXPECT_EQ(0, m_nDisconnects++);
        m_Reason = aReason;
        m_Disconnect();
    }

    int m_nConnects = 0;
    int m_nReceives = 0;
    int m_nDisconnects = 0;
    CmResult m_Reason = CM_OK;
    std::string m_strBody;
    std::function<void()> m_Connect = [] {};
    std::function<void()> m_Receive = [] {};
    std::function<void()> m_Send = [] {};
    std::function<void()> m_Disconnect = [] {};
};
