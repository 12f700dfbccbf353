// One connection that echoes, client and server in a thread of their own, while the main thread does nothing, connects a
// thousand times by address, or by a thousand names. Prints the echo's round trips meanwhile, and how many were made.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/support/histogram.h"
#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"

namespace {

constexpr int CONNECTS = 1000;
constexpr int ROUNDS = 5;
constexpr int64_t PAUSE_NS = 200000000;  // before each round, and a round of doing nothing

class CEchoServer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CEchoServer() {
        CCmInetAddr addr("127.0.0.1", 0);
        if (CCmConnectionManager::Instance()->CreateConnectionServer(CCmConnectionManager::CTYPE_TCP, m_pAcceptor.ParaOut()) !=
                CM_OK ||
            m_pAcceptor->StartListen(this, addr) != CM_OK || m_pAcceptor->GetListenAddr(addr) != CM_OK)
            bench::Fail("listen");
        m_wPort = addr.GetPort();
    }
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aTrpt->OpenWithSink(this) == CM_OK)
            m_Transports.emplace_back(aTrpt);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override { aTrptId->SendData(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override { std::erase(m_Transports, aTrptId); }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::vector<CCmRefPtrT<ICmTransport>> m_Transports;
    uint16_t m_wPort = 0;
};

// Connects; the one that talks then keeps a message going to and fro.
class CClient : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CClient(const std::string& aName, uint16_t aPort, bool aTalks) : m_bTalks(aTalks) {
        CCmConnectionManager::Instance()->CreateConnectionClient(CCmConnectionManager::CTYPE_TCP, m_pConnector.ParaOut());
        m_pConnector->AsycConnect(this, CCmInetAddr(aName.c_str(), aPort));
    }
    ~CClient() override {
        if (m_pTransport)
            m_pTransport->Disconnect(CM_OK);
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason != CM_OK || aTrpt->OpenWithSink(this) != CM_OK)
            bench::Fail(cm_result_name(aReason));
        m_pTransport = aTrpt;
        if (m_bTalks)
            Send();
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {
        if (m_bMeasured) {
            m_RoundTrips.Record(bench::NowNs() - m_llSent);
            ++m_nRoundTrips;
        }
        Send();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    bool IsConnected() const { return !!m_pTransport; }

    bench::CHistogram m_RoundTrips;
    double m_nRoundTrips = 0;
    std::atomic<bool> m_bMeasured{false};  // by the main thread

private:
    void Send() {
        static char s_Message[64];
        CCmMessageBlock block(sizeof s_Message, s_Message, CCmMessageBlock::DONT_DELETE, sizeof s_Message);
        m_llSent = bench::NowNs();
        m_pTransport->SendData(block);
    }

    const bool m_bTalks;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    int64_t m_llSent = 0;
};

CCmReactorEpoll& Main() {
    return static_cast<CCmReactorEpoll&>(*CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN));
}

void Idle(int64_t aNs) {
    for (const int64_t llEnd = bench::NowNs() + aNs; bench::NowNs() < llEnd;)
        Main().RunOnce();
}

// All of them at once; they stay until all are there. No name is asked for twice.
void ConnectAll(bool aByName, int aFirst, uint16_t aPort) {
    std::vector<std::unique_ptr<CClient>> clients;
    for (int i = 0; i < CONNECTS; ++i)
        clients.push_back(std::make_unique<CClient>(
            aByName ? "n" + std::to_string(aFirst + i) + ".test" : std::string("127.0.0.1"), aPort, false));
    while (!std::all_of(clients.begin(), clients.end(), [](const auto& pClient) { return pClient->IsConnected(); }))
        Main().RunOnce();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string strMode = argc == 3 ? argv[1] : "";
    if (strMode != "quiet" && strMode != "address" && strMode != "name") {
        std::fputs("usage: bench_names_talvo quiet|address|name CONFIGURATION-FILE\n", stderr);
        return 2;
    }
    bench::RaiseDescriptorLimit();
    ACmThread* pUser = nullptr;
    if (load_config_file(argv[2]) != CM_OK || CCmThreadManager::Instance()->InitMainThread(0, nullptr) != CM_OK ||
        !CCmConnectionManager::Instance() || CCmThreadManager::Instance()->CreateUserTaskThread(pUser) != CM_OK)
        bench::Fail("start");
    CEchoServer* pServer = nullptr;  // these two live as long as the process
    CClient* pTalker = nullptr;
    bench::Call(*pUser->GetEventQueue(), [&] {
        pServer = new CEchoServer;
        pTalker = new CClient("127.0.0.1", pServer->m_wPort, true);
    });
    int64_t llMeasured = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        Idle(PAUSE_NS);
        const int64_t llStart = bench::NowNs();
        pTalker->m_bMeasured = true;
        if (strMode == "quiet")
            Idle(PAUSE_NS);
        else
            ConnectAll(strMode == "name", i * CONNECTS, pServer->m_wPort);
        pTalker->m_bMeasured = false;
        llMeasured += bench::NowNs() - llStart;
    }
    bench::CReport report;
    bench::Call(*pUser->GetEventQueue(), [&] {
        report.Add("rate", pTalker->m_nRoundTrips * 1e9 / static_cast<double>(llMeasured));
        report.Add("p50_us", pTalker->m_RoundTrips.PercentileUs(0.5));
        report.Add("p99_us", pTalker->m_RoundTrips.PercentileUs(0.99));
    });
    report.Print();
    std::fflush(stdout);
    _exit(0);
}
