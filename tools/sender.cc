// The exchange with the receiver; sender_walk.cc has the walk through files and folders.
#include "tools/sender.h"

#include <algorithm>

#include "tools/connecting.h"
#include "tools/connection_type.h"
#include "tools/endpoint.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int PIECES_PER_TURN = 16;  // then the loop handles other handles, above all signals
constexpr long CLOSING_SECONDS = 2;
constexpr uint64_t PIECES_PER_SECOND = 4;  // at least, with a limit of the rate
constexpr int64_t MSEC = 1000;             // microseconds

}  // namespace

Sender::Sender(const Arguments& aArguments, Console& aConsole, ProgressMeter& aMeter, RateLimit& aRate, SendRecord& aRecord,
               ISenderUser& aUser)
    : m_Arguments(aArguments),
      m_Console(aConsole),
      m_Meter(aMeter),
      m_Rate(aRate),
      m_Record(aRecord),
      m_User(aUser),
      m_Secret(aArguments.m_strSecret),
      m_strChallenge(SharedSecret::MakeChallenge()),
      m_Walk(aArguments.m_vecFiles, aArguments.m_strName),
      m_Survey(aArguments.m_vecFiles, aArguments.m_strName) {
    m_Meter.Begin();
    m_Meter.BeginSearch();
}

Sender::~Sender() {
    Close();
    if (!m_bSurveyed)
        m_Meter.EndSearch();
    m_Meter.End();
}

void Sender::Start() {
    if (m_strChallenge.empty() || StartConnect(m_Arguments, this, m_pConnector) != CM_OK)
        return Finish({CAUSE_LOCAL, m_strChallenge.empty() ? "the system has no random numbers" : "cannot create a connector"});
    m_llHeard = CCmClock::GetTimeOfDayUsec();
    OnSilence();
    Survey();
}

// The connector's own time-out would end before a handshake does.
void Sender::OnSilence() {
    const bool bReady = m_State == RUNNING && !m_strPeerChallenge.empty();
    const int64_t llMost = int64_t{m_Arguments.m_dwSilenceMs} * MSEC;
    const int64_t llLimit = bReady ? llMost : std::min(llMost, CONNECT_SECONDS * 1000 * MSEC);
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    CCmReconnectStatus gaps;
    if (m_pTransport && m_pTransport->GetOption(CM_OPT_TRANSPORT_RECONNECT_STATUS, &gaps) == CM_OK && gaps.m_bSuspended)
        m_llHeard = llNow;
    const int64_t llLeft = m_llHeard + llLimit - llNow;
    if (llLeft > 0)
        return RequireMemory(m_SilenceTimer.Schedule(this, CCmTimeValue::FromUsec(llLeft), 1));
    const std::string strAddr = cm_address_text(m_Arguments.m_Addr);
    Finish({CAUSE_TIMEOUT,
            (m_State == CONNECTING ? "cannot connect to " + strAddr + ": no answer within " : strAddr + " sends nothing for ") +
                std::to_string(llLimit / MSEC) + " ms"});
}

void Sender::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK) {
        Finish(DescribeConnectFailure(m_Arguments.m_Addr, *m_pConnector, aReason));
        return;
    }
    m_pTransport = aTrpt;
    m_llHeard = CCmClock::GetTimeOfDayUsec();
    ReportConnection(m_Arguments, *m_pTransport, m_Console);
    m_dwMaxPiece = GetMaxMessage(*m_pTransport) - DATA_HEADER;
    if (const uint64_t ullPiece = m_Arguments.m_Transfer.m_ullRate / PIECES_PER_SECOND + 1; ullPiece > 1)
        m_dwMaxPiece = static_cast<DWORD>(std::min<uint64_t>(m_dwMaxPiece, ullPiece));
    DWORD dwOn = 1;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_KEEPALIVE, &dwOn);
    if (m_pTransport->OpenWithSink(this) != CM_OK) {
        Finish({CAUSE_BROKEN, "cannot use the connection"});
        return;
    }
    Send(EncodeHello(m_strChallenge));
    if (m_State == CLOSED)
        return;
    m_State = m_Secret.IsSet() ? WAIT_WELCOME : RUNNING;
    Pump();
}

void Sender::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    m_llHeard = CCmClock::GetTimeOfDayUsec();
    if (m_Parser.Feed(aData, *this) != FrameParser::ALL_READ && m_State != CLOSED)
        Finish({CAUSE_PROTOCOL, "the peer is no talvo recv: its answer is unknown"});
    else
        Pump();
}

void Sender::OnSend(ICmTransport*, CCmTransportParameter*) {
    m_bBlocked = false;
    OnSent(m_Outbox.SendRest(*m_pTransport));
    Pump();
}

void Sender::OnDisconnect(CmResult aReason, ICmTransport*) {
    if (m_State == CLOSING)
        return Finish({});
    Failure failure = DescribeEnd("the connection to " + cm_address_text(m_Arguments.m_Addr), *m_pTransport, aReason);
    failure.m_strReason += "; " + std::to_string(m_Record.m_stKept) + " of " + std::to_string(m_stFound + m_Walk.GetLeft()) +
                           " files were delivered";
    Finish(failure);
}

void Sender::OnTimer(CCmTimerWrapperID* aId) {
    if (aId == &m_SurveyTimer)
        return Survey();
    if (aId == &m_SilenceTimer)
        return OnSilence();
    m_bPaused = false;
    if (m_State == CLOSING)
        Finish({});
    else
        Pump();
}

bool Sender::OnFrame(EFrame aType, std::string_view aPayload) {
    switch (aType) {
    case EFrame::WELCOME:
        return OnWelcome(aPayload);
    case EFrame::PROVED:
        return OnProved(aPayload);
    case EFrame::ACCEPT:
        return OnAccept(DecodeId(aPayload), DecodeOffset(aPayload));
    case EFrame::VERDICT:
        return OnVerdict(DecodeId(aPayload), aPayload.back() == '\1');
    case EFrame::RESULT:
        return OnResult(DecodeId(aPayload), aPayload);
    case EFrame::ALIVE:
        return true;
    case EFrame::DROPPED:
        return OnDropped(aPayload);
    case EFrame::HELLO:
    case EFrame::FILE:
    case EFrame::DATA:
    case EFrame::END:
    case EFrame::ABORT:
    case EFrame::BYE:
    case EFrame::FOLDER:
    case EFrame::RESUME:
    case EFrame::PROOF:
        break;
    }
    return false;
}

bool Sender::OnWelcome(std::string_view aPayload) {
    bool bDemands = false;
    if (!m_strPeerChallenge.empty() || !DecodeWelcome(aPayload, bDemands, m_strPeerChallenge))
        return false;
    if (bDemands != m_Secret.IsSet()) {
        Finish({CAUSE_REFUSED, bDemands ? "the receiver demands a shared secret; give --secret or --secret-file"
                                        : "the receiver has no shared secret, and so does not prove that it is the right one"});
        return false;
    }
    if (!bDemands)
        return true;
    m_State = WAIT_PROVED;
    Send(EncodeFrame(EFrame::PROOF, m_Secret.Prove(SharedSecret::SENDER, m_strChallenge, m_strPeerChallenge)));
    return m_State != CLOSED;
}

bool Sender::OnProved(std::string_view aPayload) {
    if (m_State != WAIT_PROVED)
        return false;
    if (!m_Secret.Check(SharedSecret::RECEIVER, m_strChallenge, m_strPeerChallenge, aPayload)) {
        Finish({CAUSE_REFUSED, "the receiver has another shared secret"});
        return false;
    }
    m_State = RUNNING;
    return true;
}

bool Sender::OnDropped(std::string_view aReason) {
    Finish({CAUSE_REFUSED, "the receiver has dropped this sender, because " + std::string(aReason)});
    return false;
}

bool Sender::OnAccept(DWORD aId, uint64_t aOffset) {
    if (m_Folders.contains(aId))
        return aOffset == 0;
    const auto it = m_Items.find(aId);
    if (it == m_Items.end() || it->second.m_Step != Item::WAIT_ACCEPT)
        return false;
    const uint64_t ullSize = it->second.m_File.GetSize();
    if (aOffset > (ullSize == UNKNOWN_SIZE ? 0 : ullSize))
        return false;
    it->second.m_ullBeginning = aOffset;
    it->second.m_Step = aOffset > 0 ? Item::CHECKING : Item::SENDING;
    return true;
}

bool Sender::OnVerdict(DWORD aId, bool aSame) {
    const auto it = m_Items.find(aId);
    if (it == m_Items.end() || it->second.m_Step != Item::WAIT_VERDICT)
        return false;
    Item& item = it->second;
    item.m_Step = Item::SENDING;
    if (!aSame) {
        item.m_File.Rewind();
        item.m_ullBeginning = 0;
        return true;
    }
    item.m_ullMetered -= item.m_ullBeginning;
    m_Meter.Waive(item.m_ullBeginning);
    return true;
}

bool Sender::OnResult(DWORD aId, std::string_view aPayload) {
    bool bKept = false;
    std::string strReason;
    if (!DecodeResult(aPayload, bKept, strReason))
        return false;
    const auto it = m_Items.find(aId);
    if (it == m_Items.end())
        return OnFolderResult(aId, bKept, strReason);
    Item& item = it->second;
    if (bKept && item.m_Step != Item::WAIT_RESULT)
        return false;
    // The receiver skips data in flight until ABORT or END.
    if (item.m_Step == Item::WAIT_ACCEPT)
        ReleaseFolder(item.m_dwFolder);
    else if (item.m_Step != Item::WAIT_RESULT)
        EndItem(item, EncodeFor(EFrame::ABORT, aId));
    if (item.m_ullMetered > item.m_ullMoved)
        m_Meter.Waive(item.m_ullMetered - item.m_ullMoved);
    if (bKept)
        ReportSent(item);
    else if (item.m_File.GetProblem().empty())
        ReportFailed(item.m_strPath, {CAUSE_REFUSED, "the receiver refused it: " + strReason});
    else
        ReportFailed(item.m_strPath, {CAUSE_LOCAL, item.m_File.GetProblem()});
    if (item.m_File.GetSize() == UNKNOWN_SIZE)
        m_pInput.reset();  // before its descriptor is closed
    m_Items.erase(it);
    return m_State != CLOSED;
}

bool Sender::OnFolderResult(DWORD aId, bool aKept, const std::string& aReason) {
    const auto it = m_Folders.find(aId);
    if (it == m_Folders.end() || it->second.m_bRefused || (aKept && it->second.m_nUsers > 0))
        return false;
    if (!aKept)
        ReportFailed(it->second.m_strPath, {CAUSE_REFUSED, "the receiver refused it: " + aReason});
    it->second.m_bRefused = true;
    if (it->second.m_nUsers == 0)
        m_Folders.erase(it);
    return true;
}

void Sender::Pump() {
    for (int i = 0; i < PIECES_PER_TURN; ++i) {
        if (m_State != RUNNING || m_bBlocked || m_bPaused || !FillWindow())
            return;
        DWORD dwId = 0;
        Item* pItem = FindWork(dwId);
        if (pItem) {
            Work(dwId, *pItem);
            continue;
        }
        if (!m_bWalked || !m_Items.empty() || !m_Folders.empty())
            return;
        m_State = CLOSING;
        m_SilenceTimer.Cancel();
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CLOSING_SECONDS), 1));
        Send(EncodeFrame(EFrame::BYE));
        return;
    }
    if (!m_bPaused)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
}

// The oldest file that can go on: files are read one after the other.
Sender::Item* Sender::FindWork(DWORD& aId) {
    for (auto& [dwId, item] : m_Items) {
        aId = dwId;
        if (item.m_Step == Item::CHECKING || item.m_Step == Item::SENDING)
            return &item;
    }
    return nullptr;
}

void Sender::Work(DWORD aId, Item& aItem) {
    if (aItem.m_Step == Item::CHECKING)
        Check(aId, aItem);
    else
        SendPiece(aId, aItem);
}

void Sender::Check(DWORD aId, Item& aItem) {
    const OutgoingFile::EStep step = aItem.m_File.Skip(aItem.m_ullBeginning);
    if (step == OutgoingFile::FAILED)
        return EndItem(aItem, EncodeFor(EFrame::ABORT, aId, aItem.m_File.GetProblem()));
    if (step != OutgoingFile::AT_END)
        return;
    aItem.m_Step = Item::WAIT_VERDICT;
    Send(EncodeFor(EFrame::RESUME, aId, aItem.m_File.GetHash()));
}

void Sender::SendPiece(DWORD aId, Item& aItem) {
    CCmMessageBlock block(aItem.m_File.GetRoom());
    const uint64_t ullBefore = aItem.m_File.GetDone();
    switch (aItem.m_File.ReadNext(aId, block)) {
    case OutgoingFile::PIECE:
        OnPiece(aItem, aItem.m_File.GetDone() - ullBefore);
        return OnSent(m_Outbox.Send(*m_pTransport, block));
    case OutgoingFile::AT_END:
        aItem.m_bChanged = aItem.m_File.HasChanged();
        return EndItem(aItem, EncodeFor(EFrame::END, aId, aItem.m_File.GetHash()));
    case OutgoingFile::WAIT:
        return WaitForInput(aId, aItem);
    case OutgoingFile::FAILED:
        return EndItem(aItem, EncodeFor(EFrame::ABORT, aId, aItem.m_File.GetProblem()));
    }
}

void Sender::OnPiece(Item& aItem, uint64_t aBytes) {
    m_ullSent += aBytes;
    aItem.m_ullMoved += aBytes;
    m_Meter.Advance(aBytes);
    const int64_t llPause = m_Rate.Count(aBytes);
    m_bPaused = llPause > 0;
    if (m_bPaused)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::FromUsec(llPause), 1));
}

void Sender::EndItem(Item& aItem, const std::string& aFrame) {
    aItem.m_Step = Item::WAIT_RESULT;
    Send(aFrame);
    if (m_State != CLOSED)
        ReleaseFolder(aItem.m_dwFolder);
}

void Sender::WaitForInput(DWORD aId, Item& aItem) {
    if (!m_pInput)
        m_pInput = std::make_unique<InputWatch>(aItem.m_File.GetFd(), [this, aId] {
            const auto it = m_Items.find(aId);
            if (it != m_Items.end() && it->second.m_Step == Item::WAIT_INPUT)
                it->second.m_Step = Item::SENDING;
            Pump();
        });
    if (m_pInput->Start())
        aItem.m_Step = Item::WAIT_INPUT;
}

void Sender::Send(std::string_view aFrame) {
    if (m_State != CLOSED)
        OnSent(m_Outbox.Send(*m_pTransport, aFrame));
}

// OnDisconnect reports a lost connection, with more detail.
void Sender::OnSent(CmResult aResult) {
    if (aResult == CM_ERROR_OUT_OF_MEMORY)
        Finish({CAUSE_LOCAL, "cannot send: out of memory"});
    m_bBlocked = aResult != CM_OK;
}

void Sender::ReportFailed(const std::string& aPath, const Failure& aFailure) {
    m_Record.m_bFailed = true;
    if (IsNew(aPath))
        m_Console.Problem(aPath + " was not delivered: " + aFailure.m_strReason, JsonLine::Failed(aFailure).Add("name", aPath));
    Settle(aPath);
}

void Sender::Settle(const std::string& aPath) {
    if (m_Arguments.m_Transfer.m_dwRetries > 0)
        m_vecSettled.push_back(aPath);
}

bool Sender::MayRepeat() const {
    return std::none_of(m_Items.begin(), m_Items.end(), [](const auto& aItem) {
        return aItem.second.m_File.GetSize() == UNKNOWN_SIZE && aItem.second.m_File.GetDone() > 0;
    });
}

void Sender::ReportSent(const Item& aItem) {
    ++m_Record.m_stKept;
    Settle(aItem.m_strPath);
    const uint64_t ullSize = aItem.m_File.GetDone();
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - aItem.m_llStarted) / 1e6;
    const double dSent = static_cast<double>(ullSize - aItem.m_ullBeginning);
    std::string strText = "sent " + aItem.m_strPath + ": " + FormatBytes(ullSize) + ", ";
    if (aItem.m_ullBeginning > 0)
        strText += FormatBytes(aItem.m_ullBeginning) + " of them were there already, ";
    m_Console.Report(strText + FormatBytes(static_cast<uint64_t>(dSent / (dSeconds > 0 ? dSeconds : 1e-6))) + "/s",
                     JsonLine("sent")
                         .Add("name", aItem.m_strPath)
                         .Add("bytes", ullSize - aItem.m_ullBeginning)
                         .Add("size", ullSize)
                         .Add("seconds", dSeconds)
                         .Add("sha256", ToHex(aItem.m_File.GetHash())));
    if (aItem.m_bChanged)
        ReportChanged(aItem.m_strPath);
}

void Sender::ReportChanged(const std::string& aPath) {
    m_Record.m_bFailed = true;
    m_Console.Problem({CAUSE_CHANGED, aPath + " has changed while it was sent, so the receiver has another version"}, "name",
                      aPath);
}

void Sender::Finish(const Failure& aFailure) {
    if (m_State == CLOSED)
        return;
    Close();
    m_Record.m_Settled.insert(m_vecSettled.begin(), m_vecSettled.end());
    m_User.OnSent(aFailure);
}

void Sender::Close() {
    m_State = CLOSED;
    m_Timer.Cancel();
    m_SilenceTimer.Cancel();
    m_SurveyTimer.Cancel();
    m_Outbox.Clear();
    if (m_pConnector)
        m_pConnector->CancelConnect();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
}

}  // namespace tool
