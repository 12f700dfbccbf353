// Prices to many clients, of which a slow one skips outdated prices:   ticker
//
// Each price is a message whose key is its share. With the policy CONFLATE a client that falls behind gets only the newest
// price of each share, and both clients end with the same prices. The program ends by itself.
#include <cstdio>
#include <map>
#include <string>

#include "examples/producer.h"

constexpr DWORD TYPE = Manager::CTYPE_PDU_LENGTH | Manager::CTYPE_TCP;
constexpr const char* SHARES[] = {"ACME", "BOLT", "CORK", "DUNE"};
constexpr int PRICES = 200000, PRICES_A_TURN = 100;

// Forwards the prices when the first two clients have joined. A late client begins with the newest price of each share.
class Ticker : public Producer {
public:
    Ticker() : Producer({.m_Policy = CM_FORWARD_CONFLATE, .m_Join = CM_FORWARD_JOIN_ALL_KEYS}) {}
    CCmInetAddr Start() { return Listen(TYPE); }

private:
    void OnJoin(DWORD aId) override {
        if (aId == 2)
            MainReactor()->ScheduleTimer(this, nullptr, CCmTimeValue(0, 1000), 0);
    }
    void OnTimeout(const CCmTimeValue&, void*) override {
        for (int i = 0; i < PRICES_A_TURN && m_nPrices < PRICES; ++i)
            ForwardNext();
    }
    void ForwardNext() {
        const size_t stShare = m_nPrices % std::size(SHARES);
        const std::string strPrice = std::string(SHARES[stShare]) + " " + std::to_string(m_nPrices++);
        CCmMessageBlock message(static_cast<DWORD>(strPrice.size()));
        message.Write(strPrice.data(), static_cast<DWORD>(strPrice.size()));
        const CCmForwardHeader header{stShare + 1, 0};
        m_pSession->Forward(message, &header);
    }

    int m_nPrices = 0;
};

// Has the newest price of each share.
class Client : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    // aNext begins to read when this one has the last price; null: the program ends then.
    Client(BOOL aPaused, Client* aNext) : m_bPaused(aPaused), m_pNext(aNext) {}

    void Start(const CCmInetAddr& aAddr) {
        Manager::Instance()->CreateConnectionClient(TYPE, m_pConnector.ParaOut());
        m_pConnector->AsycConnect(this, aAddr);
    }
    void Pause(BOOL aPaused) { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPaused); }

    std::map<std::string, int> m_Prices;
    int m_nMessages = 0;

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        if (aReason == CM_OK && aTrpt->OpenWithSink(this) == CM_OK)
            Pause(m_bPaused);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const std::string strText = aData.FlattenChained();
        m_Prices[strText.substr(0, 4)] = std::atoi(strText.c_str() + 5);
        ++m_nMessages;
        if (strText.ends_with(std::to_string(PRICES - 1)))
            m_pNext ? m_pNext->Pause(FALSE) : End();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { End(); }
    static void End() { MainReactor()->StopEventLoop(); }
    const BOOL m_bPaused;  // at first
    Client* const m_pNext;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    pThreads->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    pThreads->InitMainThread(argc, argv);
    Ticker ticker;
    Client slow(TRUE, nullptr), fast(FALSE, &slow);
    const CCmInetAddr addr = ticker.Start();
    fast.Start(addr);
    slow.Start(addr);
    MainReactor()->RunEventLoop();
    std::printf("fast: %d messages, slow: %d messages\n", fast.m_nMessages, slow.m_nMessages);
    const BOOL bWell = slow.m_nMessages < fast.m_nMessages && fast.m_Prices == slow.m_Prices;
    pThreads->StopAllThreads(nullptr);
    pThreads->JoinAllThreads();
    return bWell ? 0 : 1;
}
