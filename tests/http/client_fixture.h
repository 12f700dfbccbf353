// HTTP clients whose servers are scripts: no sockets, no threads, one loop.
#pragma once

#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel/channel_options.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_url.h"
#include "talvo/transport/base_types.h"
#include "tests/support/channel_sink.h"
#include "tests/support/fake_lower.h"
#include "tests/support/network_fixture.h"
#include "tests/support/test.h"

// What a server says to a request, and what it does behind that.
struct CAnswer {
    enum EEnd { STAYS, CLOSES, RESETS };
    std::string m_strText;
    EEnd m_End = STAYS;
};

inline CAnswer Answer(const std::string& aStatus, const std::string& aHeaders, const std::string& aBody) {
    return {"HTTP/1.1 " + aStatus + "\r\n" + aHeaders + "Content-Length: " + std::to_string(aBody.size()) + "\r\n\r\n" + aBody};
}

using CAnswers = std::deque<CAnswer>;

// The server's end of a connection: takes requests, and says what its script says while the client reads.
class CScriptPeer : public CFakeLower {
public:
    CScriptPeer(CAnswers aAnswers, size_t aPiece) : m_Answers(std::move(aAnswers)), m_stPiece(aPiece) {}
    CmResult GetOption(DWORD aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_SOCK_ALIVE && aCommand != CM_OPT_TRANSPORT_FIO_NREAD)
            return CFakeLower::GetOption(aCommand, aArg);
        *static_cast<DWORD*>(aArg) = aCommand == CM_OPT_TRANSPORT_SOCK_ALIVE && m_pSink;  // nothing lies unread
        return CM_OK;
    }
    // Answers what has been asked so far.
    void Play(std::vector<std::string>& aRequests) {
        GoOn();
        for (std::string strRequest; !m_Answers.empty() && !(strRequest = TakeRequest()).empty();) {
            aRequests.push_back(strRequest);
            const CAnswer answer = m_Answers.front();
            m_Answers.pop_front();
            Say(answer);
        }
    }
    void Say(const CAnswer& aAnswer) {
        m_Out = aAnswer;
        GoOn();
    }

private:
    // The request that has come, head and body, or "" while it is not whole; clients send one at a time.
    std::string TakeRequest() {
        m_strIn += TakeSent();
        const size_t stHead = m_strIn.find("\r\n\r\n"), stLength = m_strIn.find("Content-Length: ");
        const size_t stBody = stLength < stHead ? std::stoul(m_strIn.substr(stLength + 16)) : 0;
        const BOOL bChunked = m_strIn.find("Encoding: chunked") < stHead;
        const BOOL bWhole = bChunked ? m_strIn.ends_with("0\r\n\r\n") : m_strIn.size() >= stHead + 4 + stBody;
        return stHead != std::string::npos && bWhole ? std::exchange(m_strIn, {}) : "";
    }
    // With what the client has not read.
    void GoOn() {
        while (!m_Out.m_strText.empty() && m_pSink && !m_bPaused) {
            const std::string strPiece = m_Out.m_strText.substr(0, m_stPiece);
            m_Out.m_strText.erase(0, strPiece.size());
            Receive(strPiece);
        }
        if (!m_Out.m_strText.empty())
            return;
        const CAnswer::EEnd end = std::exchange(m_Out.m_End, CAnswer::STAYS);
        if (end == CAnswer::CLOSES)
            EndSide();
        else if (end == CAnswer::RESETS)
            Vanish();
    }

    CAnswers m_Answers;
    const size_t m_stPiece;
    std::string m_strIn;
    CAnswer m_Out;
};

// A server of its own host and port. Each connection gives the answers of its number, those beyond the last give that one's.
class CScriptServer {
public:
    explicit CScriptServer(std::vector<CAnswers> aScripts, size_t aPiece = std::string::npos)
        : m_Scripts(std::move(aScripts)), m_stPiece(aPiece) {
        s_Servers[m_wPort] = this;
    }
    ~CScriptServer() { s_Servers.erase(m_wPort); }
    CScriptServer(const CScriptServer&) = delete;
    CScriptServer& operator=(const CScriptServer&) = delete;

    std::string Url(const std::string& aPath = "/") const { return "http://127.0.0.1:" + std::to_string(m_wPort) + aPath; }
    size_t GetConnections() const { return m_Peers.size(); }
    CScriptPeer& GetPeer() const { return *m_Peers.back(); }

    static void PlayAll() {
        for (const auto& [wPort, pServer] : s_Servers) {
            for (size_t i = 0; i < pServer->m_Peers.size(); ++i)
                CCmRefPtrT<CScriptPeer>(pServer->m_Peers[i])->Play(pServer->m_Requests);
        }
    }
    // Null where there is no server.
    static CCmRefPtrT<CScriptPeer> Connect(const CCmInetAddr& aAddr) {
        const auto itServer = s_Servers.find(aAddr.GetPort());
        if (itServer == s_Servers.end())
            return nullptr;
        CScriptServer& server = *itServer->second;
        const size_t stScript = std::min(server.m_Peers.size(), server.m_Scripts.size() - 1);
        server.m_Peers.emplace_back(new CScriptPeer(server.m_Scripts[stScript], server.m_stPiece));
        server.m_Peers.back()->m_dwRoom = server.m_dwRoom;
        return server.m_Peers.back();
    }

    DWORD m_dwRoom = CFakeLower::EVERYTHING;  // of new connections
    std::vector<std::string> m_Requests;      // that were answered

private:
    inline static std::map<WORD, CScriptServer*> s_Servers;
    inline static WORD s_wLastPort = 10000;

    const WORD m_wPort = ++s_wLastPort;
    const std::vector<CAnswers> m_Scripts;
    const size_t m_stPiece;
    std::vector<CCmRefPtrT<CScriptPeer>> m_Peers;
};

// Connects to a script. What is released meanwhile is deleted before.
class CScriptConnector : public ACmConnectorInternal, private CCmTimerWrapperIDSink {
public:
    explicit CScriptConnector(ACmConnectorUpper& aUpper) : m_Upper(aUpper) {}
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings) {
        return std::make_unique<CScriptConnector>(*aSettings.m_pUpper);
    }

    int Connect(const CCmInetAddr& aAddr, CCmInetAddr*) override {
        m_Addr = aAddr;
        m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
        return 0;
    }
    void Close() override { m_Timer.Cancel(); }

private:
    void OnTimer(CCmTimerWrapperID*) override {
        const CCmRefPtrT<CScriptPeer> pPeer = CScriptServer::Connect(m_Addr);
        m_Failure = pPeer ? CCmFailure() : CCmFailure(ECONNREFUSED, "connect to", m_Addr);
        m_Upper.OnConnectIndication(pPeer ? CM_OK : CM_ERROR_NETWORK_CONNECT_ERROR, pPeer.Get(), this);
    }

    ACmConnectorUpper& m_Upper;
    CCmInetAddr m_Addr;
    CCmTimerWrapperID m_Timer;
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

// The main thread is the network thread, so that no proxy stands between.
class CHttpClientTest : public testing::Test {
protected:
    CHttpClientTest() {
        CCmBaseTypeMakers makers;
        EXPECT_EQ(CM_OK, cm_get_base_type(CM_TRANSPORT_TYPE_TCP, makers));
        EXPECT_EQ(CM_OK, cm_offer_base_type(CM_TRANSPORT_TYPE_TCP, {CScriptConnector::Make, makers.m_Acceptor}));
    }
    ~CHttpClientTest() override { cm_offer_base_type(CM_TRANSPORT_TYPE_TCP, {}); }

    // The servers answer meanwhile.
    template <class Condition>
    void RunUntil(Condition aCondition) const {
        m_Network.RunUntil([&] {
            CScriptServer::PlayAll();
            return aCondition();
        });
    }
    void Turn() const {
        m_Network.RunPosted();
        CScriptServer::PlayAll();
        m_Network.RunPosted();
    }
    std::string Run(CTestHttpClient& aClient) const {
        aClient.Open();
        RunUntil([&] { return aClient.IsOver(); });
        return aClient.Result();
    }
    std::string Get(
        const CScriptServer& aServer, const std::function<void(CTestHttpClient&)>& aSet = [](CTestHttpClient&) {}) const {
        CTestHttpClient client(aServer.Url());
        aSet(client);
        return Run(client);
    }

    CCmFakeClock m_Clock;
    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
};
