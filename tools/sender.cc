#include "tools/sender.h"

#include "tools/connecting.h"
#include "tools/connection_type.h"
#include "tools/endpoint.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int PIECES_PER_TURN = 16;  // then the loop handles other handles, above all signals
constexpr long CLOSING_SECONDS = 2;

}  // namespace

Sender::Sender(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments),
      m_Application(aApplication),
      m_Console(aConsole),
      m_Progress(aConsole),
      m_Secret(aArguments.m_strSecret),
      m_strChallenge(SharedSecret::MakeChallenge()),
      m_Walk(aArguments.m_vecFiles, aArguments.m_strName) {}

Sender::~Sender() { Close(); }

void Sender::Start() {
    if (m_strChallenge.empty() || StartConnect(m_Arguments, this, m_pConnector) != CM_OK) {
        GiveUp(m_strChallenge.empty() ? "the system has no random numbers" : "cannot create a connector");
        return;
    }
    m_Progress.Start();
    // The connector's own time-out would end before a handshake does.
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CONNECT_SECONDS), 1));
}

void Sender::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK) {
        GiveUp(DescribeConnectFailure(m_Arguments.m_Addr, *m_pConnector, aReason));
        return;
    }
    m_pTransport = aTrpt;
    ReportConnection(m_Arguments, *m_pTransport, m_Console);
    m_dwMaxPiece = GetMaxMessage(*m_pTransport) - DATA_HEADER;
    DWORD dwOn = 1;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_KEEPALIVE, &dwOn);
    if (m_pTransport->OpenWithSink(this) != CM_OK) {
        GiveUp("cannot use the connection");
        return;
    }
    Send(EncodeHello(m_strChallenge));
    if (m_State == CLOSED)
        return;
    m_State = m_Secret.IsSet() ? WAIT_WELCOME : RUNNING;
    if (m_State == RUNNING) {
        m_Timer.Cancel();
        Pump();
    }
}

void Sender::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_Parser.Feed(aData, *this) != FrameParser::ALL_READ && m_State != CLOSED)
        GiveUp("the peer is no talvo recv: its answer is unknown");
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
        Close();
    else
        GiveUp("the connection to " + cm_address_text(m_Arguments.m_Addr) + " " + DescribeEnd(*m_pTransport, aReason) + "; " +
               std::to_string(m_stKept) + " of " + std::to_string(m_stFound + m_Walk.GetLeft()) + " files were delivered");
}

void Sender::OnTimer(CCmTimerWrapperID*) {
    if (m_State == CONNECTING || m_State == WAIT_WELCOME || m_State == WAIT_PROVED)
        GiveUp("cannot connect to " + cm_address_text(m_Arguments.m_Addr) + ": no answer within " +
               std::to_string(CONNECT_SECONDS) + " s");
    else if (m_State == CLOSING)
        Close();
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
        GiveUp(bDemands ? "the receiver demands a shared secret; give --secret or --secret-file"
                        : "the receiver has no shared secret, and so does not prove that it is the right one");
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
        GiveUp("the receiver has another shared secret");
        return false;
    }
    m_Timer.Cancel();
    m_State = RUNNING;
    return true;
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
    m_Progress.GetMeter().End(item.m_ullMetered, 0);
    item.m_ullMetered -= item.m_ullBeginning;
    m_Progress.GetMeter().Begin(item.m_ullMetered);
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
    m_Progress.GetMeter().End(item.m_ullMetered, item.m_File.GetDone() - std::min(item.m_ullBeginning, item.m_File.GetDone()));
    if (bKept)
        ReportSent(item);
    else
        ReportFailed(item.m_strPath, strReason);
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
        ReportFailed(it->second.m_strPath, aReason);
    it->second.m_bRefused = true;
    if (it->second.m_nUsers == 0)
        m_Folders.erase(it);
    return true;
}

void Sender::Pump() {
    for (int i = 0; i < PIECES_PER_TURN; ++i) {
        if (m_State != RUNNING || m_bBlocked || !FillWindow())
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
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CLOSING_SECONDS), 1));
        Send(EncodeFrame(EFrame::BYE));
        return;
    }
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
}

// The folders that the walk is in do not count: each has entries to come.
bool Sender::HasRoom() const { return m_Items.size() + m_Folders.size() - m_vecWalk.size() < MOST_IN_FLIGHT; }

// false: the transport takes no more at present.
bool Sender::FillWindow() {
    FolderWalk::Entry entry;
    while (!m_bWalked && HasRoom()) {
        m_bWalked = !m_Walk.Next(entry);
        if (!m_bWalked)
            Begin(entry);
        if (m_bBlocked || m_State != RUNNING)
            return false;
    }
    return true;
}

void Sender::Begin(FolderWalk::Entry& aEntry) {
    switch (aEntry.m_Kind) {
    case FolderWalk::FILE:
        return BeginFile(aEntry);
    case FolderWalk::FOLDER:
        return BeginFolder(aEntry);
    case FolderWalk::LEAVE:
        if (!aEntry.m_strProblem.empty())
            ReportFailed(aEntry.m_strPath, aEntry.m_strProblem);
        return LeaveFolder();
    case FolderWalk::SKIPPED:
        m_Console.Report("skipped " + aEntry.m_strPath + ": " + aEntry.m_strProblem,
                         JsonLine("skipped").Add("name", aEntry.m_strPath).Add("reason", aEntry.m_strProblem));
        return;
    case FolderWalk::PROBLEM:
        ++m_stFound;
        return ReportFailed(aEntry.m_strPath, aEntry.m_strProblem);
    }
}

FrameEntry Sender::MakeEntry(const FolderWalk::Entry& aEntry, uint64_t aSize) {
    const timespec& time = aEntry.m_Status.st_mtim;
    return {++m_dwLastId,
            m_vecWalk.empty() ? OUT_FOLDER : m_vecWalk.back(),
            aEntry.m_Status.st_mode & 0777,
            time.tv_sec,
            static_cast<DWORD>(time.tv_nsec),
            aSize,
            aEntry.m_strName};
}

void Sender::BeginFile(FolderWalk::Entry& aEntry) {
    ++m_stFound;
    const uint64_t ullSize = aEntry.m_bInput ? UNKNOWN_SIZE : static_cast<uint64_t>(aEntry.m_Status.st_size);
    const FrameEntry entry = MakeEntry(aEntry, ullSize);
    const auto itFolder = m_Folders.find(entry.m_dwFolder);
    if (itFolder != m_Folders.end() && itFolder->second.m_bRefused)
        return ReportFailed(aEntry.m_strPath, "its folder was refused");
    if (itFolder != m_Folders.end())
        ++itFolder->second.m_nUsers;
    const auto it =
        m_Items.try_emplace(entry.m_dwId, std::move(aEntry.m_File), ullSize, m_dwMaxPiece, aEntry.m_strPath, entry.m_dwFolder)
            .first;
    it->second.m_ullMetered = aEntry.m_bInput ? 0 : ullSize;
    m_Progress.GetMeter().Begin(it->second.m_ullMetered);
    Send(EncodeEntry(EFrame::FILE, entry));
}

void Sender::BeginFolder(const FolderWalk::Entry& aEntry) {
    const FrameEntry entry = MakeEntry(aEntry, 0);
    const auto itParent = m_Folders.find(entry.m_dwFolder);
    const bool bRefused = itParent != m_Folders.end() && itParent->second.m_bRefused;
    m_vecWalk.push_back(entry.m_dwId);
    m_Folders.try_emplace(entry.m_dwId, Folder{aEntry.m_strPath, 1, bRefused});
    if (!bRefused)
        Send(EncodeEntry(EFrame::FOLDER, entry));
}

void Sender::LeaveFolder() {
    const DWORD dwId = m_vecWalk.back();
    m_vecWalk.pop_back();
    ReleaseFolder(dwId);
}

void Sender::ReleaseFolder(DWORD aId) {
    const auto it = m_Folders.find(aId);
    if (it == m_Folders.end() || --it->second.m_nUsers > 0)
        return;
    if (it->second.m_bRefused)
        m_Folders.erase(it);
    else
        Send(EncodeFor(EFrame::END, aId));
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
        m_Progress.GetMeter().Advance(aItem.m_File.GetDone() - ullBefore);
        return OnSent(m_Outbox.Send(*m_pTransport, block));
    case OutgoingFile::AT_END:
        return EndItem(aItem, EncodeFor(EFrame::END, aId, aItem.m_File.GetHash()));
    case OutgoingFile::WAIT:
        return WaitForInput(aId, aItem);
    case OutgoingFile::FAILED:
        return EndItem(aItem, EncodeFor(EFrame::ABORT, aId, aItem.m_File.GetProblem()));
    }
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
        GiveUp("cannot send: out of memory");
    m_bBlocked = aResult != CM_OK;
}

void Sender::ReportFailed(const std::string& aPath, const std::string& aReason) {
    m_bFailed = true;
    m_Console.Problem(aPath + " was not delivered: " + aReason, JsonLine::Failed(CAUSE_OTHER, aReason).Add("name", aPath));
}

void Sender::ReportSent(const Item& aItem) {
    ++m_stKept;
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
}

void Sender::GiveUp(const std::string& aText) {
    m_Console.Problem(aText);
    m_bFailed = true;
    Close();
}

void Sender::Close() {
    m_State = CLOSED;
    m_Timer.Cancel();
    m_Outbox.Clear();
    if (m_pConnector)
        m_pConnector->CancelConnect();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
    m_pTransport.Reset();
    m_Application.Finish(m_bFailed ? EXIT_FAILED : EXIT_OK);
}

}  // namespace tool
