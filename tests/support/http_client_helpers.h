// HTTP client channels in tests.
#pragma once

#include <functional>
#include <string>

#include "talvo/http/channel/channel_options.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_url.h"
#include "tests/support/fake_clock.h"
#include "tests/support/script_server.h"
#include "tests/support/trace_capture.h"

// Collects what a channel says and sees that it is said in order; each upcall may also run a callable.
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

// A client of the calling thread with its sink.
class CTestHttpClient {
public:
    explicit CTestHttpClient(const std::string& aUrl) {
        CCmRefPtrT<CCmHttpUrl> pUrl;
        EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), aUrl));
        EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get()));
    }
    CmResult Set(DWORD aOption, DWORD aValue) const { return m_pChannel->SetOption(aOption, &aValue); }
    CmResult Header(const char* aName, const std::string& aValue, BOOL aMerge = FALSE) const {
        return m_pChannel->SetRequestHeader(CCmHttpAtomList::Instance()->ResolveAtom(aName, 1), aValue, aMerge);
    }
    // With a body unless it is empty.
    void Ask(const char* aMethod, const std::string& aBody = "") const {
        EXPECT_EQ(CM_OK, m_pChannel->SetRequestMethod(CCmHttpAtomList::Instance()->ResolveAtom(aMethod, 1)));
        EXPECT_EQ(CM_OK, aBody.empty() ? CM_OK : m_pChannel->SetRequestBody(ViewOf(aBody)));
    }
    void Open() { EXPECT_EQ(CM_OK, m_pChannel->AsyncOpen(&m_Sink)); }
    bool IsOver() const { return m_Sink.m_nDisconnects > 0; }
    // Status and body, and behind them the reason if it is not CM_OK.
    std::string Result() const {
        const std::string strResult = std::to_string(m_pChannel->GetResponseStatus()) + " " + m_Sink.m_strBody;
        return m_Sink.m_Reason == CM_OK ? strResult : strResult + " !" + std::to_string(m_Sink.m_Reason);
    }

    CTestChannelSink m_Sink;
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
};

class CHttpClientTest : public testing::Test {
protected:
    std::string Run(CTestHttpClient& aClient) const {
        aClient.Open();
        m_Network.RunUntil([&] { return aClient.IsOver(); });
        return aClient.Result();
    }
    std::string Get(
        const CScriptServer& aServer, const std::function<void(CTestHttpClient&)>& aSet = [](CTestHttpClient&) {}) {
        CTestHttpClient client(aServer.Url());
        aSet(client);
        return Run(client);
    }
    const CTestNetwork m_Network;
};

inline std::string Answer(const std::string& aStatus, const std::string& aHeaders, const std::string& aBody) {
    return "HTTP/1.1 " + aStatus + "\r\n" + aHeaders + "Content-Length: " + std::to_string(aBody.size()) + "\r\n\r\n" + aBody;
}
