// The network thread echoes to one peer, a bare socket in a thread of its own. Meanwhile the main thread does nothing, connects
// a thousand times by address, or by a thousand names. Prints the echo's round trips of the second that begins with the
// connects, and of the time until all are connected.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "benchmarks/support/histogram.h"
#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"

namespace {

constexpr int CONNECTS = 1000;
constexpr int ROUNDS = 5;
constexpr int64_t PAUSE_NS = 200000000;  // before each round
constexpr int64_t ROUND_NS = 1000000000;

// Created and called back in the network thread.
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
            m_Transports.emplace(aTrpt, aTrpt);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override { aTrptId->SendData(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override { m_Transports.erase(aTrptId); }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<ICmTransport*, CCmRefPtrT<ICmTransport>> m_Transports;
    uint16_t m_wPort = 0;
};

// Keeps one message in flight. It uses nothing of this library, so that it waits for the network thread alone.
class CTalker {
public:
    explicit CTalker(uint16_t aPort) : m_Thread([this, aPort] { Run(aPort); }) { m_Thread.detach(); }

    enum EPhase { PAUSE, BURST, SECOND };

    std::atomic<EPhase> m_Phase{PAUSE};  // the main thread sets it and reads the figures in a pause
    bench::CHistogram m_Second;
    bench::CHistogram m_Burst;

private:
    void Run(uint16_t aPort) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = bench::LoopbackAddress(aPort);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == -1)
            bench::Fail("connect");
        bench::SetNoDelay(fd);
        for (char message[64] = {};;) {
            const EPhase phase = m_Phase;
            const int64_t llSent = bench::NowNs();
            if (send(fd, message, sizeof message, 0) != sizeof message ||
                recv(fd, message, sizeof message, MSG_WAITALL) != sizeof message)
                bench::Fail("echo");
            const int64_t llTook = bench::NowNs() - llSent;
            if (phase != PAUSE)
                m_Second.Record(llTook);
            if (phase == BURST)
                m_Burst.Record(llTook);
        }
    }

    std::thread m_Thread;
};

class CClient : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CClient(const std::string& aName, uint16_t aPort) {
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
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    bool IsConnected() const { return !!m_pTransport; }

private:
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

CCmReactorEpoll& Main() {
    return static_cast<CCmReactorEpoll&>(*CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN));
}

void Idle(int64_t aNs) {
    for (const int64_t llEnd = bench::NowNs() + aNs; bench::NowNs() < llEnd;)
        Main().RunOnce(nullptr);
}

using ClientsType = std::vector<std::unique_ptr<CClient>>;

// Connects all at once and waits for all. No name is looked up twice.
ClientsType ConnectAll(bool aByName, int aFirst, uint16_t aPort) {
    ClientsType clients;
    for (int i = 0; i < CONNECTS; ++i)
        clients.push_back(
            std::make_unique<CClient>(aByName ? "n" + std::to_string(aFirst + i) + ".test" : std::string("127.0.0.1"), aPort));
    while (!std::all_of(clients.begin(), clients.end(), [](const auto& pClient) { return pClient->IsConnected(); }))
        Main().RunOnce(nullptr);
    return clients;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string strMode = argc == 3 ? argv[1] : "";
    if (strMode != "quiet" && strMode != "address" && strMode != "name") {
        std::fputs("usage: bench_names_talvo quiet|address|name CONFIGURATION-FILE\n", stderr);
        return 2;
    }
    bench::RaiseDescriptorLimit();
    if (load_config_file(argv[2]) != CM_OK || CCmThreadManager::Instance()->InitMainThread(0, nullptr) != CM_OK ||
        !CCmConnectionManager::Instance())
        bench::Fail("start");
    CEchoServer* pServer = nullptr;  // these two live as long as the process
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK)->GetLink().Call([&] {
        pServer = new CEchoServer;
        return CM_OK;
    });
    CTalker* pTalker = new CTalker(pServer->m_wPort);
    for (int i = 0; i < ROUNDS; ++i) {
        Idle(PAUSE_NS);
        ClientsType clients;  // closed after the measurement
        const int64_t llStart = bench::NowNs();
        pTalker->m_Phase = CTalker::BURST;
        if (strMode != "quiet") {
            clients = ConnectAll(strMode == "name", i * CONNECTS, pServer->m_wPort);
            pTalker->m_Phase = CTalker::SECOND;
        }
        Idle(llStart + ROUND_NS - bench::NowNs());
        pTalker->m_Phase = CTalker::PAUSE;
    }
    Idle(PAUSE_NS);  // lets the last round trip be recorded
    bench::CReport report;
    report.Add("second_p50_us", pTalker->m_Second.PercentileUs(0.5));
    report.Add("second_p99_us", pTalker->m_Second.PercentileUs(0.99));
    report.Add("burst_p50_us", pTalker->m_Burst.PercentileUs(0.5));
    report.Add("burst_p99_us", pTalker->m_Burst.PercentileUs(0.99));
    report.Print();
    std::fflush(stdout);
    _exit(0);
}
