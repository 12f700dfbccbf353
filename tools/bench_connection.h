// One connection of `talvo bench`.
#pragma once

#include <string>

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/bench_plan.h"
#include "tools/histogram.h"
#include "tools/http_reply.h"
#include "tools/outbox.h"

namespace tool {

class BenchConnection;

class BenchSink {
public:
    virtual void OnConnected() = 0;                          // for the first time
    virtual void OnDone(int64_t aDueNs) = 0;                 // a message that was due then has its answer, or was taken
    virtual void OnHttpStatus(int aStatus) = 0;              // of a reply
    virtual void OnReady(BenchConnection& aConnection) = 0;  // its Send may have work again
    virtual void OnBroken(const Failure& aFailure) = 0;      // the connection cannot be used any more
    virtual ~BenchSink() = default;
};

// Connects, sends what is due and takes the answers. An HTTP server that closes between replies is connected to again. Main
// thread. The arguments, the plan and the sink outlive it.
class BenchConnection : private ICmAcceptorConnectorSink, private ICmTransportSink {
public:
    BenchConnection(const Arguments& aArguments, const BenchPlan& aPlan, size_t aIndex, BenchSink& aSink);
    ~BenchConnection() override;
    BenchConnection(const BenchConnection&) = delete;
    BenchConnection& operator=(const BenchConnection&) = delete;

    void Connect();
    // Sends all that is due, as far as the connection takes it. Returns when the next message is due, or NEVER while an answer
    // or OnReady comes first.
    int64_t Send(int64_t aNow);
    static constexpr int64_t NEVER = INT64_MAX;

    uint64_t GetSent() const { return m_ullSent; }
    uint64_t GetAnswered() const { return m_ullAnswered; }
    uint64_t GetReconnects() const { return m_ullReconnects; }
    // Messages that were due until aNow and were not sent, because the connection or the server was too slow.
    uint64_t GetLate(int64_t aNow) const;
    // With a rate: records the time until aNow for each message that was due and has no answer, unless it may be lost.
    void RecordOpen(int64_t aNow, Histogram& aLatency) const;

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    bool MayLose() const { return m_Plan.m_bNumbered; }
    void SendNext(int64_t aDue);
    void OnTaken(CmResult aResult);
    void OnBytes(std::string_view aBytes);
    void OnNumbered(const std::string& aMessage);
    void OnHttp(std::string_view aBytes);
    void Answer(uint64_t aNumber);

    const Arguments& m_Arguments;
    const BenchPlan& m_Plan;
    const size_t m_stIndex;
    BenchSink& m_Sink;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
    std::string m_strMessage;
    HttpReply m_Reply;
    bool m_bWasConnected = false;
    bool m_bBlocked = true;   // it takes nothing: not connected, or until OnSend
    int64_t m_llLastDue = 0;  // of the last message sent
    uint64_t m_ullSent = 0;   // messages
    uint64_t m_ullAnswered = 0;
    uint64_t m_ullTakenBytes = 0;  // of answers, in a stream
    uint64_t m_ullReconnects = 0;
};

}  // namespace tool
