// HTTP servers that follow a script, for tests of code that uses HTTP channels: no sockets, no threads, one loop.
#pragma once

#include <cerrno>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/event/timer_wrapper_id.h"
#include "talvo/testing/scripted_transport.h"
#include "talvo/transport/base_types.h"

// The bytes of one answer, head and body, and what the server does after them. Any bytes will do: a broken answer, or a part.
struct CCmScriptedAnswer {
    // The end behind the bytes: none, an orderly close, a reset.
    enum EEnd { STAYS, CLOSES, RESETS };

    // aStatus: "200 OK". aHeaders: lines that end in CR LF. The length of aBody is added to them.
    static CCmScriptedAnswer Make(const std::string& aStatus, const std::string& aHeaders, const std::string& aBody) {
        return {"HTTP/1.1 " + aStatus + "\r\n" + aHeaders + "Content-Length: " + std::to_string(aBody.size()) + "\r\n\r\n" +
                aBody};
    }

    std::string m_strBytes;  // head and body
    EEnd m_End = STAYS;      // the end behind them
};

// The server's end of a connection. It sends no more while the client pauses reading.
class CCmScriptedHttpPeer : public CCmScriptedTransport {
public:
    // aPiece: the most bytes of one receive.
    CCmScriptedHttpPeer(std::deque<CCmScriptedAnswer> aAnswers, size_t aPiece)
        : m_Answers(std::move(aAnswers)), m_stPiece(aPiece) {}

    // Alive while the client has not closed; no bytes are unread.
    CmResult GetOption(CmDword aCommand, void* aArg) override {
        if (aCommand != CM_OPT_TRANSPORT_SOCK_ALIVE && aCommand != CM_OPT_TRANSPORT_FIO_NREAD)
            return CCmScriptedTransport::GetOption(aCommand, aArg);
        *static_cast<CmDword*>(aArg) = aCommand == CM_OPT_TRANSPORT_SOCK_ALIVE && m_pSink;
        return CM_OK;
    }
    // Answers the whole requests that have come, and appends them to aRequests.
    void Play(std::vector<std::string>& aRequests) {
        Continue();
        for (std::string strRequest; !m_Answers.empty() && !(strRequest = TakeRequest()).empty();) {
            aRequests.push_back(strRequest);
            const CCmScriptedAnswer answer = m_Answers.front();
            m_Answers.pop_front();
            Say(answer);
        }
    }
    // Sends aAnswer, whether there is a request or not.
    void Say(const CCmScriptedAnswer& aAnswer) {
        m_Out = aAnswer;
        Continue();
    }

private:
    // The request that has come, head and body, or "" while it is incomplete. Channels send one at a time.
    std::string TakeRequest() {
        m_strIn += TakeSent();
        const size_t stHead = m_strIn.find("\r\n\r\n"), stLength = m_strIn.find("Content-Length: ");
        const size_t stBody = stLength < stHead ? std::stoul(m_strIn.substr(stLength + 16)) : 0;
        const CmBool bChunked = m_strIn.find("Encoding: chunked") < stHead;
        const CmBool bWhole = bChunked ? m_strIn.ends_with("0\r\n\r\n") : m_strIn.size() >= stHead + 4 + stBody;
        return stHead != std::string::npos && bWhole ? std::exchange(m_strIn, {}) : "";
    }
    void Continue() {
        while (!m_Out.m_strBytes.empty() && m_pSink && !m_bPaused) {
            const std::string strPiece = m_Out.m_strBytes.substr(0, m_stPiece);
            m_Out.m_strBytes.erase(0, strPiece.size());
            Receive(strPiece);
        }
        if (!m_Out.m_strBytes.empty())
            return;
        const CCmScriptedAnswer::EEnd end = std::exchange(m_Out.m_End, CCmScriptedAnswer::STAYS);
        if (end == CCmScriptedAnswer::CLOSES)
            EndSide();
        else if (end == CCmScriptedAnswer::RESETS)
            Vanish();
    }

    std::deque<CCmScriptedAnswer> m_Answers;
    const size_t m_stPiece;
    std::string m_strIn;
    CCmScriptedAnswer m_Out;
};

// A server at an address of its own:
//
//    CCmScriptedHttp http;
//    CCmScriptedHttpServer server({{CCmScriptedAnswer::Make("200 OK", "", "hello")}});
//    ... CreateChannelHttpClient and AsyncOpen of server.GetUrl("/path") ...
//    ... run the loop, with http.Play() between its turns ...
//    EXPECT_EQ(1u, server.m_Requests.size());
//
// Each connection has a list of answers, one for each request; connections beyond the lists have the last one.
class CCmScriptedHttpServer {
public:
    using CAnswers = std::deque<CCmScriptedAnswer>;  // one for each request of a connection

    // aScripts: the answers of each connection. aPiece: the most bytes of one receive.
    explicit CCmScriptedHttpServer(std::vector<CAnswers> aScripts, size_t aPiece = std::string::npos)
        : m_Scripts(std::move(aScripts)), m_stPiece(aPiece) {
        s_Servers[m_wPort] = this;
    }
    ~CCmScriptedHttpServer() { s_Servers.erase(m_wPort); }
    CCmScriptedHttpServer(const CCmScriptedHttpServer&) = delete;
    CCmScriptedHttpServer& operator=(const CCmScriptedHttpServer&) = delete;

    // aScheme "": that of CCmScriptedHttp.
    std::string GetUrl(const std::string& aPath = "/", const std::string& aScheme = "") const {
        return (aScheme.empty() ? s_strScheme : aScheme) + "://127.0.0.1:" + std::to_string(m_wPort) + aPath;
    }
    CCmInetAddr GetAddr() const { return CCmInetAddr("127.0.0.1", m_wPort); }  // where it listens
    size_t GetConnections() const { return m_Peers.size(); }                   // the number up to now
    CCmScriptedHttpPeer& GetPeer() const { return *m_Peers.back(); }           // of the last connection

    CmDword m_dwRoom = CCmScriptedTransport::EVERYTHING;  // of new connections
    std::vector<std::string> m_Requests;                  // with their bodies, in the order of the answers

private:
    friend class CCmScriptedHttp;
    inline static std::map<CmWord, CCmScriptedHttpServer*> s_Servers;
    inline static CmWord s_wLastPort = 10000;
    inline static std::string s_strScheme = "http";

    const CmWord m_wPort = ++s_wLastPort;
    const std::vector<CAnswers> m_Scripts;
    const size_t m_stPiece;
    std::vector<CCmRefPtrT<CCmScriptedHttpPeer>> m_Peers;
};

// While one is in scope, TCP and TLS connections of new channels lead to the scripted servers; to any other port they are
// refused. TLS has no handshake: every certificate is good. Create it in the network thread, which must be the calling thread:
// CCmThreadManager::NETWORK_THREAD_MAIN.
class CCmScriptedHttp {
public:
    // aScheme: of the servers' URLs, "http" or "https".
    explicit CCmScriptedHttp(const std::string& aScheme = "http") {
        CCmScriptedHttpServer::s_strScheme = aScheme;
        for (const CmDword dwType : TYPES) {
            CCmBaseTypeMakers makers;
            cm_get_base_type(dwType, makers);
            cm_offer_base_type(dwType, {CConnector::Make, makers.m_Acceptor});
        }
    }
    ~CCmScriptedHttp() {
        for (const CmDword dwType : TYPES)
            cm_offer_base_type(dwType, {});
        CCmScriptedHttpServer::s_strScheme = "http";
    }
    CCmScriptedHttp(const CCmScriptedHttp&) = delete;
    CCmScriptedHttp& operator=(const CCmScriptedHttp&) = delete;

    // Lets all servers answer the requests that have come.
    static void Play() {
        for (const auto& [wPort, pServer] : CCmScriptedHttpServer::s_Servers) {
            for (size_t i = 0; i < pServer->m_Peers.size(); ++i)
                CCmRefPtrT<CCmScriptedHttpPeer>(pServer->m_Peers[i])->Play(pServer->m_Requests);
        }
    }

    // A connection to the server of a port, as a channel gets it. Null: there is no such server.
    static CCmRefPtrT<CCmScriptedHttpPeer> ConnectTo(CmWord aPort) {
        const auto itServer = CCmScriptedHttpServer::s_Servers.find(aPort);
        if (itServer == CCmScriptedHttpServer::s_Servers.end())
            return nullptr;
        CCmScriptedHttpServer& server = *itServer->second;
        const size_t stScript = std::min(server.m_Peers.size(), server.m_Scripts.size() - 1);
        server.m_Peers.emplace_back(new CCmScriptedHttpPeer(server.m_Scripts[stScript], server.m_stPiece));
        server.m_Peers.back()->m_dwRoom = server.m_dwRoom;
        return server.m_Peers.back();
    }

private:
    static constexpr CmDword TYPES[] = {CM_TRANSPORT_TYPE_TCP, CM_TRANSPORT_TYPE_TLS};

    // Reports from the loop, as any connector does.
    class CConnector : public ACmConnectorInternal, private CCmTimerWrapperIDSink {
    public:
        explicit CConnector(ACmConnectorUpper& aUpper) : m_Upper(aUpper) {}
        static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings) {
            return std::make_unique<CConnector>(*aSettings.m_pUpper);
        }
        int Connect(const CCmInetAddr& aAddr, CCmInetAddr*) override {
            m_Addr = aAddr;
            m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
            return 0;
        }
        void Close() override { m_Timer.Cancel(); }
        CmResult SetOption(CmDword, void*) override { return CM_OK; }  // those of TLS have no effect

    private:
        void OnTimer(CCmTimerWrapperID*) override {
            const CCmRefPtrT<CCmScriptedHttpPeer> pPeer = ConnectTo(m_Addr.GetPort());
            m_Failure = pPeer ? CCmFailure() : CCmFailure(ECONNREFUSED, "connect to", m_Addr);
            m_Upper.OnConnectIndication(pPeer ? CM_OK : CM_ERROR_NETWORK_CONNECT_ERROR, pPeer.Get(), this);
        }

        ACmConnectorUpper& m_Upper;
        CCmInetAddr m_Addr;
        CCmTimerWrapperID m_Timer;
    };
};
