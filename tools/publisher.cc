#include "tools/publisher.h"

#include <functional>
#include <string_view>
#include <utility>

#include "tools/endpoint.h"
#include "tools/forwarding.h"
#include "tools/listening.h"
#include "tools/memory.h"

namespace tool {

namespace {

const CCmTimeValue ASKING(1);
const CCmTimeValue WATCH_INTERVAL(0, 100000);
constexpr uint32_t LINGER_SECONDS = 30;

std::string_view FieldOf(std::string_view aLine, DWORD aField) {
    constexpr const char* BLANKS = " \t";
    size_t stBegin = aLine.find_first_not_of(BLANKS);
    for (DWORD n = 1; n < aField && stBegin != std::string_view::npos; ++n) {
        const size_t stEnd = aLine.find_first_of(BLANKS, stBegin);
        stBegin = stEnd == std::string_view::npos ? stEnd : aLine.find_first_not_of(BLANKS, stEnd);
    }
    if (stBegin == std::string_view::npos)
        return {};
    return aLine.substr(stBegin, aLine.find_first_of(BLANKS, stBegin) - stBegin);
}

}  // namespace

// A connection, and later a receiver of the session.
class Publisher::Peer : public ICmTransportSink, public CCmTimerWrapperIDSink {
public:
    Peer(Publisher& aPublisher, ICmTransport* aTransport)
        : m_Publisher(aPublisher), m_pTransport(aTransport), m_strAddress(GetPeerText(*aTransport)) {}
    ~Peer() override {
        if (m_dwId == 0)
            m_pTransport->Disconnect(CM_OK);
    }

    CmResult Open() {
        RequireMemory(m_Asking.Schedule(this, ASKING, 1));
        BOOL bTell = TRUE;
        m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bTell);  // raw streams: the end of its side alone is no end
        return m_pTransport->OpenWithSink(this);
    }

    // Everything behind the first line is ignored. An empty block: the peer sends no more, but may read.
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        if (m_dwId != 0)
            return;
        m_strAsked += aData.FlattenChained().substr(0, JOIN_LINE_LIMIT);
        if (aData.GetChainedLength() > 0 && m_strAsked.find('\n') == std::string::npos && m_strAsked.size() < JOIN_LINE_LIMIT)
            return;
        m_Publisher.Join(*this, ParseJoinLine(m_strAsked));
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport* aTrptId) override {
        if (m_dwId == 0)
            m_Publisher.Forget(aTrptId);
    }
    void OnTimer(CCmTimerWrapperID*) override { m_Publisher.Join(*this, CM_FORWARD_JOIN_NEXT); }

    Publisher& m_Publisher;
    const CCmRefPtrT<ICmTransport> m_pTransport;
    const std::string m_strAddress;
    std::string m_strAsked;
    CCmTimerWrapperID m_Asking;
    DWORD m_dwId = 0;  // 0: no receiver yet
    uint64_t m_ullDropped = 0;
};

Publisher::Publisher(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments),
      m_Application(aApplication),
      m_Console(aConsole),
      m_Source(*this, aArguments.m_dwRate, LONGEST_LINE) {}

Publisher::~Publisher() {
    if (m_pAcceptor)
        m_pAcceptor->StopListen(CM_OK);
    if (m_pSession)
        m_pSession->Close(CM_OK);
}

void Publisher::Start() {
    if (CCmConnectionManager::Instance()->CreateForwardSession(this, m_pSession.ParaOut()) != CM_OK)
        return Complain({CAUSE_LOCAL, "cannot create a session"});
    // The lines follow in later turns, when it listens.
    const std::string strProblem = m_Source.Start(m_Arguments.m_strFile);
    if (!strProblem.empty())
        return ComplainOfInput(strProblem);
    if (!StartListening(m_Arguments, this, m_Console, m_pAcceptor))
        return m_Application.Finish(EXIT_FAILED);
    RequireMemory(m_Watch.Schedule(this, WATCH_INTERVAL));
}

void Publisher::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return;
    const BOOL bMemory = talvo::WithMemory([&] {
        auto pPeer = std::make_unique<Peer>(*this, aTrpt);
        if (pPeer->Open() == CM_OK)
            m_Peers[aTrpt] = std::move(pPeer);
    });
    if (!bMemory)
        ComplainOfMemory();
}

void Publisher::Join(Peer& aPeer, ECmForwardJoin aJoin) {
    aPeer.m_Asking.Cancel();
    CCmForwardReceiverOptions options;
    options.m_Policy = m_Arguments.m_Policy;
    options.m_Join = aJoin;
    options.m_strLabel = aPeer.m_strAddress;
    if (m_pSession->AddReceiver(aPeer.m_pTransport.Get(), options, aPeer.m_dwId) == CM_OK)
        m_Receivers[aPeer.m_dwId] = &aPeer;
    else
        Forget(aPeer.m_pTransport.Get());
}

void Publisher::Forget(ICmTransport* aTransport) { m_Peers.erase(aTransport); }

void Publisher::OnJoin(DWORD aId) {
    const std::string& strAddress = m_Receivers.at(aId)->m_strAddress;
    m_Console.Report("receiver " + std::to_string(aId) + ", " + strAddress + ", has joined",
                     JsonLine("joined").Add("receiver", aId).Add("peer", strAddress));
}

void Publisher::OnReceiver(DWORD aId, CmResult aReason) {
    Peer& peer = *m_Receivers.at(aId);
    ReportDrops(aId, peer);
    const bool bSlow = aReason == CM_ERROR_PARTIAL_DATA;
    const bool bShort = aReason == CM_ERROR_INVALID_ARG;
    const char* pEnd = bSlow    ? " was too slow and is disconnected"
                       : bShort ? " cannot take a line of that length and is disconnected"
                                : " has left";
    m_Console.Report("receiver " + std::to_string(aId) + pEnd,
                     JsonLine("left").Add("receiver", aId).Add("slow", bSlow).Add("reason", DescribeResult(aReason)));
    m_Receivers.erase(aId);
    Forget(peer.m_pTransport.Get());
}

void Publisher::ReportDrops(DWORD aId, Peer& aPeer) {
    CCmForwardStatistics statistics;
    if (m_pSession->GetStatistics(statistics, aId) != CM_OK)
        return;
    const uint64_t ullAll = statistics.m_Dropped.m_ullMessages;
    const uint64_t ullNew = ullAll - std::exchange(aPeer.m_ullDropped, ullAll);
    if (ullNew > 0)
        m_Console.Report("receiver " + std::to_string(aId) + " is slow: " + std::to_string(ullNew) + " messages are dropped",
                         JsonLine("dropped").Add("receiver", aId).Add("messages", ullNew).Add("all", ullAll));
}

bool Publisher::OnLine(const Line& aLine) {
    if (!aLine.IsWhole())
        return SkipLine(aLine);
    const auto dwLength = static_cast<DWORD>(aLine.m_ullLength);
    CCmMessageBlock message(dwLength + 1);
    message.Write(aLine.m_strText.data(), dwLength);
    message.Write("\n", 1);
    CCmForwardHeader header;
    header.m_ullKey = GetKey(aLine.m_strText);
    const CmResult rv = m_pSession->Forward(message, &header);
    if (rv == CM_ERROR_INVALID_ARG)
        return SkipLine(aLine);
    if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
        Complain({GetCause(rv), "cannot forward: " + DescribeResult(rv)});
    return rv != CM_ERROR_PARTIAL_DATA;
}

// It is longer than a message of the session, or of a receiver, may be.
bool Publisher::SkipLine(const Line& aLine) {
    m_bSkipped = true;
    m_Console.Problem({CAUSE_LOCAL, "line " + std::to_string(aLine.m_ullNumber) + " was not sent: its " +
                                        std::to_string(aLine.m_ullLength) + " bytes are too long for one message"},
                      "name", GetInputName());
    return true;
}

void Publisher::OnForward() { m_Source.GoOn(); }

std::string Publisher::GetInputName() const { return m_Arguments.m_strFile.empty() ? "-" : m_Arguments.m_strFile; }

uint64_t Publisher::GetKey(const std::string& aLine) const {
    const std::string_view strField = m_Arguments.m_dwKeyField > 0 ? FieldOf(aLine, m_Arguments.m_dwKeyField) : "";
    if (strField.empty())
        return 0;
    const uint64_t ullKey = std::hash<std::string_view>()(strField);
    return ullKey == 0 ? 1 : ullKey;
}

void Publisher::OnEnd(const std::string& aProblem) {
    if (!aProblem.empty())
        return ComplainOfInput(aProblem);
    m_bEnded = true;
    m_dwProgress = get_tick_count();
    FinishWhenSent();
}

void Publisher::OnTimer(CCmTimerWrapperID*) {
    for (const auto& [dwId, pPeer] : m_Receivers)
        ReportDrops(dwId, *pPeer);
    FinishWhenSent();
}

void Publisher::FinishWhenSent() {
    CCmForwardStatistics statistics;
    if (!m_bEnded || m_pSession->GetStatistics(statistics) != CM_OK)
        return;
    if (std::exchange(m_ullSent, statistics.m_Sent.m_ullMessages) != statistics.m_Sent.m_ullMessages)
        m_dwProgress = get_tick_count();
    const bool bAll = statistics.m_Lag.m_ullMessages == 0;
    const uint64_t ullSeconds = get_uint32_param("Proxy", "LingerSeconds", LINGER_SECONDS);
    if (!bAll && calculate_tick_interval(m_dwProgress, get_tick_count()) < ullSeconds * 1000)
        return;
    m_Watch.Cancel();
    if (bAll)
        return m_Application.Finish(m_bSkipped ? EXIT_FAILED : EXIT_OK);
    Complain({CAUSE_TIMEOUT, std::to_string(statistics.m_Lag.m_ullMessages) +
                                 " messages remain: no receiver has taken one for " + std::to_string(ullSeconds) + " s"});
}

void Publisher::ComplainOfInput(const std::string& aProblem) {
    m_Console.Problem({CAUSE_LOCAL, aProblem}, "name", GetInputName());
    m_Application.Finish(EXIT_FAILED);
}

void Publisher::Complain(const Failure& aFailure) {
    m_Console.Problem(aFailure);
    m_Application.Finish(EXIT_FAILED);
}

}  // namespace tool
