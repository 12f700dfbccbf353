// bench_users_talvo THREADS: THREADS user threads, each with a server and a client of its own that stream length-prefixed
// messages of 64 bytes, all through the one network thread. Prints "rate", the messages of all threads in a second, and
// "cpu_ns", the process's cost of one.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_server.h"

namespace {

constexpr DWORD SIZE = 64;
constexpr DWORD TYPE = CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr int MOST_THREADS = 64;
constexpr useconds_t WARM_UP_USEC = 200000;
constexpr useconds_t WORK_USEC = 900000;

thread_local uint64_t t_ullReceived = 0;  // messages, in a user's thread

class CCountingSession : public bench::CTalvoSession<CCountingSession> {
public:
    using CTalvoSession::CTalvoSession;
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override { ++t_ullReceived; }
};

// Lives in its own thread, except its constructor and destructor.
class CUser : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CUser() { bench::Expect(CCmThreadManager::Instance()->CreateUserTaskThread(m_pThread)); }
    ~CUser() override {
        bench::Call(*m_pThread->GetEventQueue(), [this] {
            m_pConnection.Reset();
            m_pConnector.Reset();
            m_Server.Close();
        });
        m_pThread->Stop();
        m_pThread->Join();
        m_pThread->Destory(CM_OK);
    }
    CUser(const CUser&) = delete;
    CUser& operator=(const CUser&) = delete;

    void Start() {
        bench::Call(*m_pThread->GetEventQueue(), [this] {
            bench::Expect(m_Server.Open(TYPE, 0));
            bench::Expect(CCmConnectionManager::Instance()->CreateConnectionClient(TYPE, m_pConnector.ParaOut()));
            m_pConnector->AsycConnect(this, m_Server.GetAddr());
        });
    }
    uint64_t GetReceived() {
        uint64_t ullReceived = 0;
        bench::Call(*m_pThread->GetEventQueue(), [&] { ullReceived = t_ullReceived; });
        return ullReceived;
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        bench::Expect(aReason);
        m_pConnection = aTrpt;
        bench::Expect(aTrpt->OpenWithSink(this));
        Stream();
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override { Stream(); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override { bench::Expect(aReason); }

private:
    // Sends until the connection takes no more. OnSend continues, first with the refused block.
    void Stream() {
        do {
            if (m_Made)
                continue;
            std::memset(m_Made.emplace(SIZE).GetTopLevelWritePtr(), 'u', SIZE);
            m_Made->AdvanceTopLevelWritePtr(SIZE);
        } while (SendMade());
    }
    bool SendMade() {
        if (m_pConnection->SendData(*m_Made) != CM_OK)
            return false;
        m_Made.reset();
        return true;
    }

    ACmThread* m_pThread = nullptr;  // owned, until Destory
    bench::CTalvoServer<CCountingSession> m_Server;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pConnection;
    std::optional<CCmMessageBlock> m_Made;
};

uint64_t ReceivedBy(const std::vector<std::unique_ptr<CUser>>& aUsers) {
    uint64_t ullReceived = 0;
    for (const auto& pUser : aUsers)
        ullReceived += pUser->GetReceived();
    return ullReceived;
}

}  // namespace

int main(int argc, char** argv) {
    const int nThreads = argc == 2 ? std::atoi(argv[1]) : 0;
    if (nThreads < 1 || nThreads > MOST_THREADS) {
        std::fprintf(stderr, "usage: %s THREADS\n", argv[0]);
        return 2;
    }
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    std::vector<std::unique_ptr<CUser>> users;
    for (int n = 0; n < nThreads; ++n)
        users.push_back(std::make_unique<CUser>());
    for (const auto& pUser : users)
        pUser->Start();
    usleep(WARM_UP_USEC);
    const uint64_t ullBefore = ReceivedBy(users);
    const int64_t llCpuBefore = bench::CpuNs(0);
    const int64_t llStart = bench::NowNs();
    usleep(WORK_USEC);
    const double dMessages = static_cast<double>(ReceivedBy(users) - ullBefore);
    bench::CReport report;
    report.Add("rate", dMessages * 1e9 / static_cast<double>(bench::NowNs() - llStart));
    report.Add("cpu_ns", static_cast<double>(bench::CpuNs(0) - llCpuBefore) / dMessages);
    report.Print();
    return 0;
}
