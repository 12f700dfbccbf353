// A chat in which each line is one message:   chat server [PORT]   and   chat NAME [HOST:PORT]
//
// Package connections preserve messages, so a line needs no end mark. Their keep-alives detect a lost participant. All
// callbacks come in the main thread, including typed input. Without arguments two clients of a local server talk, and the
// program ends.
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include "talvo/talvo.h"

using Manager = CCmConnectionManager;
constexpr DWORD TYPE = Manager::CTYPE_PDU_PACKAGE | Manager::CTYPE_PDU_KEEPALIVE | Manager::CTYPE_TCP;

ICmReactor* MainReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

CmResult SendText(ICmTransport& aTransport, const std::string& aText) {
    const auto dwLength = static_cast<DWORD>(aText.size());
    CCmMessageBlock block(dwLength, aText.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    return aTransport.SendData(block);
}

// The failed attempt of a connector or an acceptor, and the cause.
std::string WhyNot(ICmAcceptorConnectorId& aId) {
    CCmFailure failure;
    cm_get_connect_options(&aId)->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    return failure.ToString();
}

// Forwards each message to all other clients. The first message of a client is its name.
class ChatServer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CmResult Start(WORD aPort, CCmInetAddr& aAddr) {
        CmResult rv = Manager::Instance()->CreateConnectionServer(TYPE, m_pAcceptor.ParaOut());
        if (rv == CM_OK)
            rv = m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", aPort));
        return rv == CM_OK ? m_pAcceptor->GetListenAddr(aAddr) : rv;
    }
    std::string WhyNot() const { return ::WhyNot(*m_pAcceptor); }

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason == CM_OK && aTrpt->OpenWithSink(this) == CM_OK)
            m_Clients[aTrpt].m_pTransport = aTrpt;
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        std::string& strName = m_Clients[aTrptId].m_strName;
        const std::string strText = aData.FlattenChained();
        TellOthers(aTrptId, strName.empty() ? "* " + strText + " has come" : strName + ": " + strText);
        strName = strName.empty() ? strText : strName;
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override {
        TellOthers(aTrptId, "* " + m_Clients[aTrptId].m_strName + " has left");
        m_Clients.erase(aTrptId);
    }
    // A slow client misses lines instead of delaying the others: a refused send is dropped.
    void TellOthers(const ICmTransport* aSpeaker, const std::string& aText) {
        CCmMessageBlock line(static_cast<DWORD>(aText.size()));
        line.Write(aText.data(), static_cast<DWORD>(aText.size()));
        for (const auto& [pTransport, client] : m_Clients) {
            if (pTransport == aSpeaker || client.m_strName.empty())
                continue;
            if (const CCmChainPtr pCopy{line.DuplicateChained()})  // shares the text; a send consumes its block
                pTransport->SendData(*pCopy);
        }
    }

    struct Client {
        CCmRefPtrT<ICmTransport> m_pTransport;
        std::string m_strName;
    };
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::map<ICmTransport*, Client> m_Clients;
};

// Prints the others' messages and sends typed lines. In the mode without arguments it answers once and ends.
class ChatClient : public ICmAcceptorConnectorSink, public ICmTransportSink, public ACmEventHandler {
public:
    ChatClient(std::string aName, bool aTypes) : m_strName(std::move(aName)), m_bTypes(aTypes) {}

    void Start(const CCmInetAddr& aServer) {
        Manager::Instance()->CreateConnectionClient(TYPE, m_pConnector.ParaOut());
        m_pConnector->AsycConnect(this, aServer);
    }
    bool HasFailed() const { return m_bFailed; }

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        if (aReason != CM_OK || m_pTransport->OpenWithSink(this) != CM_OK || SendText(*m_pTransport, m_strName) != CM_OK)
            return Leave(("cannot " + WhyNot(*m_pConnector)).c_str(), true);
        if (m_bTypes && MainReactor()->RegisterHandler(this, READ_MASK) != CM_OK)
            Leave("lines are read from a terminal or a pipe only");
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        std::string strText = aData.FlattenChained();
        for (char& letter : strText)  // no control characters, which would move the reader's cursor
            letter = std::iscntrl(static_cast<unsigned char>(letter)) ? '?' : letter;
        std::printf("%s\n", strText.c_str());
        if (!m_bTypes && strText.ends_with('!'))
            Leave("that was all");
        else if (!m_bTypes)
            SendText(*m_pTransport, strText.starts_with('*') ? "welcome" : "thank you!");
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { Leave("the server is gone"); }

    HANDLE GetHandle() const override { return STDIN_FILENO; }
    int OnInput(HANDLE) override {
        char szRead[4096];
        const ssize_t nRead = read(STDIN_FILENO, szRead, sizeof szRead);
        if (nRead <= 0)
            return -1;  // OnClose follows
        m_strTyped.append(szRead, static_cast<size_t>(nRead));
        for (size_t end; (end = m_strTyped.find('\n')) != std::string::npos; m_strTyped.erase(0, end + 1)) {
            if (SendText(*m_pTransport, m_strTyped.substr(0, end)) != CM_OK)
                std::printf("* not sent: too long, or too much at once\n");
        }
        return 0;
    }
    int OnClose(HANDLE, long) override {
        Leave("good bye");
        return 0;
    }
    void Leave(const char* aWhy, bool aFailed = false) {
        if (std::exchange(m_bLeft, true))
            return;
        m_bFailed = aFailed;
        std::printf("* %s\n", aWhy);
        MainReactor()->StopEventLoop();
    }

    const std::string m_strName;
    const bool m_bTypes;
    bool m_bLeft = false;
    bool m_bFailed = false;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    std::string m_strTyped;  // the incomplete line
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    pThreads->InitMainThread(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string strWho = argc > 1 ? argv[1] : "";
    const bool bServes = strWho.empty() || strWho == "server";
    CCmInetAddr addr(argc > 2 && !bServes ? argv[2] : "127.0.0.1:7000");
    ChatServer server;
    if (bServes) {
        if (server.Start(static_cast<WORD>(argc > 2 ? std::atoi(argv[2]) : strWho.empty() ? 0 : 7000), addr) != CM_OK)
            return std::printf("cannot %s\n", server.WhyNot().c_str()), 1;
        std::printf("listening at port %u\n", unsigned{addr.GetPort()});
    }
    ChatClient me(strWho.empty() ? "Ann" : strWho, !bServes), other("Bob", false);
    if (strWho != "server")
        me.Start(addr);
    if (strWho.empty())
        other.Start(addr);
    MainReactor()->RunEventLoop();
    Manager::Instance()->Drain(nullptr);  // sends the last messages, and notifies all peers that this end has left
    pThreads->StopAllThreads(nullptr);
    pThreads->JoinAllThreads();
    return me.HasFailed() ? 1 : 0;
}
