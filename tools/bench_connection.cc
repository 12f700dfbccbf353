#include "tools/bench_connection.h"

#include <algorithm>
#include <cstring>

#include "tools/connecting.h"
#include "tools/connection_type.h"
#include "tools/endpoint.h"
#include "tools/pace_timer.h"

namespace tool {

namespace {

constexpr int MESSAGES_PER_TURN = 64;            // of one connection; then the others send
constexpr int64_t LOSS_NANOSECONDS = 200000000;  // then the next message follows a lost one, without a rate

}  // namespace

BenchConnection::BenchConnection(const Arguments& aArguments, const BenchPlan& aPlan, size_t aIndex, BenchSink& aSink)
    : m_Arguments(aArguments),
      m_Plan(aPlan),
      m_stIndex(aIndex),
      m_Sink(aSink),
      m_strMessage(aPlan.m_Kind == BenchPlan::HTTP ? aPlan.m_strRequest : std::string(aPlan.m_stSize, 'x')) {}

BenchConnection::~BenchConnection() {
    if (m_pConnector)
        m_pConnector->CancelConnect();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
}

void BenchConnection::Connect() {
    m_bBlocked = true;
    if (StartConnect(m_Arguments, this, m_pConnector) != CM_OK)
        m_Sink.OnBroken({CAUSE_LOCAL, "cannot create a connector"});
}

void BenchConnection::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return m_Sink.OnBroken(DescribeConnectFailure(m_Arguments.m_Addr, *m_pConnector, aReason));
    m_pTransport = aTrpt;
    const DWORD dwMax = GetMaxMessage(*m_pTransport);
    if (m_strMessage.size() > dwMax)
        return m_Sink.OnBroken(
            {CAUSE_USAGE, "--size: a message over this connection has at most " + std::to_string(dwMax) + " bytes"});
    if (m_pTransport->OpenWithSink(this) != CM_OK)
        return m_Sink.OnBroken({CAUSE_BROKEN, "cannot use the connection"});
    m_bBlocked = false;
    m_Reply = HttpReply();
    if (!m_bWasConnected) {
        m_bWasConnected = true;
        return m_Sink.OnConnected();
    }
    ++m_ullReconnects;
    if (m_ullSent > m_ullAnswered) {  // the request whose reply did not come
        --m_ullSent;
        SendNext(m_llLastDue);
    }
    m_Sink.OnReady(*this);
}

int64_t BenchConnection::Send(int64_t aNow) {
    for (int i = 0; i < MESSAGES_PER_TURN; ++i) {
        const bool bLost = MayLose() && m_Plan.m_dRate == 0 && aNow > m_llLastDue + LOSS_NANOSECONDS;
        const bool bFull = m_Plan.m_Kind != BenchPlan::ONE_WAY && !(MayLose() && m_Plan.m_dRate > 0) &&
                           m_ullSent - m_ullAnswered >= m_Plan.GetWindow();
        if (m_bBlocked || aNow >= m_Plan.GetEnd())
            return NEVER;
        if (bFull && !bLost)
            return MayLose() ? m_llLastDue + LOSS_NANOSECONDS : NEVER;
        const int64_t llDue = m_Plan.m_dRate == 0 ? aNow : m_Plan.GetDue(m_stIndex, m_ullSent);
        if (llDue > aNow)
            return llDue;
        if (bLost)
            m_ullAnswered = m_ullSent;
        SendNext(llDue);
    }
    return aNow;
}

void BenchConnection::SendNext(int64_t aDue) {
    m_llLastDue = aDue;
    if (m_Plan.m_bNumbered)
        std::memcpy(m_strMessage.data(), &m_ullSent, sizeof(m_ullSent));
    else if (m_Plan.m_bTakesTimes)
        std::memcpy(m_strMessage.data(), &aDue, sizeof(aDue));
    ++m_ullSent;
    const CmResult rv = m_Outbox.Send(*m_pTransport, m_strMessage);
    m_bBlocked = rv != CM_OK;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        m_Sink.OnBroken({CAUSE_LOCAL, "cannot send: out of memory"});
    else if (rv == CM_OK && m_Plan.m_Kind == BenchPlan::ONE_WAY && !m_Plan.m_bTakesTimes)
        m_Sink.OnDone(aDue);
}

void BenchConnection::OnSend(ICmTransport*, CCmTransportParameter*) {
    if (m_Outbox.SendRest(*m_pTransport) != CM_OK)
        return;
    if (m_bBlocked && m_Plan.m_Kind == BenchPlan::ONE_WAY && !m_Plan.m_bTakesTimes)
        m_Sink.OnDone(m_llLastDue);
    m_bBlocked = false;
    m_Sink.OnReady(*this);
}

void BenchConnection::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_Plan.m_bNumbered)
        return OnNumbered(aData.FlattenChained());
    for (const CCmMessageBlock* p = &aData; p && m_pTransport; p = p->GetNext())
        OnBytes({p->GetTopLevelReadPtr(), p->GetTopLevelLength()});
}

void BenchConnection::OnBytes(std::string_view aBytes) {
    if (m_Plan.m_Kind == BenchPlan::HTTP)
        return OnHttp(aBytes);
    m_ullTakenBytes += aBytes.size();
    if (m_ullTakenBytes > m_ullSent * m_Plan.m_stSize || m_Plan.m_Kind == BenchPlan::ONE_WAY)
        return m_Sink.OnBroken({CAUSE_PROTOCOL, "the peer does not echo: it sent more than it got"});
    while (m_ullTakenBytes >= (m_ullAnswered + 1) * m_Plan.m_stSize)
        Answer(m_ullAnswered);
    m_Sink.OnReady(*this);
}

// A late answer counts as well, once.
void BenchConnection::OnNumbered(const std::string& aMessage) {
    uint64_t ullNumber = 0;
    if (aMessage.size() != m_Plan.m_stSize)
        return;
    std::memcpy(&ullNumber, aMessage.data(), sizeof(ullNumber));
    const bool bLast = ullNumber + 1 == m_ullSent;
    if (ullNumber >= m_ullSent || (m_Plan.m_dRate == 0 && !bLast))
        return;
    Answer(ullNumber);
    m_Sink.OnReady(*this);
}

void BenchConnection::OnHttp(std::string_view aBytes) {
    while (!aBytes.empty()) {
        const HttpReply::EResult result = m_Reply.Feed(aBytes);
        if (result == HttpReply::MORE)
            return;
        if (result == HttpReply::BROKEN || m_ullSent == m_ullAnswered)
            return m_Sink.OnBroken({CAUSE_PROTOCOL, "the server's reply is no HTTP/1.1 reply with a length"});
        m_Sink.OnHttpStatus(m_Reply.GetStatus());
        Answer(m_ullAnswered);
        m_bBlocked = m_Reply.IsLast();  // OnDisconnect follows
        if (!m_bBlocked)
            m_Sink.OnReady(*this);
    }
}

void BenchConnection::Answer(uint64_t aNumber) {
    ++m_ullAnswered;
    m_Sink.OnDone(m_Plan.m_dRate == 0 ? m_llLastDue : m_Plan.GetDue(m_stIndex, aNumber));
}

void BenchConnection::OnDisconnect(CmResult aReason, ICmTransport*) {
    const Failure failure = DescribeEnd("the connection to " + cm_address_text(m_Arguments.m_Addr), *m_pTransport, aReason);
    m_Outbox.Clear();
    m_bBlocked = true;
    m_pTransport.Reset();
    if (m_Plan.m_Kind == BenchPlan::HTTP && m_ullAnswered > 0)
        Connect();
    else
        m_Sink.OnBroken(failure);
}

uint64_t BenchConnection::GetLate(int64_t aNow) const {
    if (m_Plan.m_dRate == 0)
        return 0;
    const double dPerConnection = m_Plan.m_dRate / static_cast<double>(m_Plan.m_stConnections);
    const auto ullDue =
        static_cast<uint64_t>(static_cast<double>(std::min(aNow, m_Plan.GetEnd()) - m_Plan.m_llStart) / 1e9 * dPerConnection);
    return ullDue > m_ullSent ? ullDue - m_ullSent : 0;
}

void BenchConnection::RecordOpen(int64_t aNow, Histogram& aLatency) const {
    const uint64_t ullDue = m_ullSent + GetLate(aNow);
    const bool bMeasuredElsewhere = m_Plan.m_Kind == BenchPlan::ONE_WAY;
    if (m_Plan.m_dRate == 0 || MayLose())
        return;
    for (uint64_t ull = bMeasuredElsewhere ? m_ullSent : m_ullAnswered; ull < ullDue; ++ull)
        aLatency.Record(static_cast<uint64_t>(std::max<int64_t>(aNow - m_Plan.GetDue(m_stIndex, ull), 0)));
}

}  // namespace tool
