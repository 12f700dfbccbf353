// A sink of HTTP and file channels that records its upcalls, for tests of code that uses channels.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "talvo/http/channel/channel.h"

// One thread. A callable runs inside each upcall, after it has been recorded, and may release the channel:
//
//    CCmChannelLog log;
//    pChannel->AsyncOpen(&log);
//    ... run the loop ...
//    EXPECT_EQ("connect, receive hello, disconnect 0", log.Take());
class CCmChannelLog : public ICmChannelSink {
public:
    // The upcalls since the last call, in order; the body that was received in a row is one entry.
    std::string Take() { return std::exchange(m_strLog, {}); }
    // A violation of the order of upcalls: an upcall before OnConnect or after OnDisconnect, or OnConnect twice. Empty: nothing
    // of that.
    const std::string& GetFaults() const { return m_strFaults; }

    // The numbers of upcalls.
    int m_nConnects = 0;
    int m_nReceives = 0;
    int m_nDisconnects = 0;
    CmResult m_Reason = CM_OK;  // of OnDisconnect
    std::string m_strBody;      // all data of OnReceive
    // Run inside the upcalls.
    std::function<void()> m_Connect = [] {};
    std::function<void()> m_Receive = [] {};
    std::function<void()> m_Send = [] {};
    std::function<void()> m_Disconnect = [] {};

    void OnConnect(CmResult aReason, ICmChannel*) override {
        Record("connect", aReason == CM_OK && m_nConnects++ == 0);
        m_Connect();
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const std::string strData = aData.FlattenChained();
        Record(m_bReceiving && !m_strLog.empty() ? "" : "receive ", m_nConnects == 1);
        m_bReceiving = CM_TRUE;
        ++m_nReceives;
        m_strBody += strData;
        m_strLog += strData;
        m_Receive();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        Record("send", CM_TRUE);
        m_Send();
    }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        Record("disconnect " + std::to_string(aReason), CM_TRUE);
        ++m_nDisconnects;
        m_Reason = aReason;
        m_Disconnect();
    }

private:
    void Record(const std::string& aUpcall, CmBool aInTurn) {
        if (!aInTurn || m_nDisconnects > 0)
            m_strFaults += aUpcall + " out of turn. ";
        m_strLog += (m_strLog.empty() || aUpcall.empty() ? "" : ", ") + aUpcall;
        m_bReceiving = CM_FALSE;
    }

    std::string m_strLog, m_strFaults;
    CmBool m_bReceiving = CM_FALSE;
};
