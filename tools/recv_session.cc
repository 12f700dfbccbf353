#include "tools/recv_session.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tools/endpoint.h"
#include "tools/file_name.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr long HELLO_SECONDS = 10;
constexpr long SIGN_SECONDS = 30;
constexpr size_t MOST_ANSWERS = 2 * MOST_OPEN;          // that wait for a slow connection
constexpr const char* OUT_OF_MEMORY = "out of memory";  // so short that a string holds it without an allocation

}  // namespace

RecvSession::RecvSession(const RecvContext& aContext, ICmTransport* aTransport)
    : m_Context(aContext),
      m_pTransport(aTransport),
      m_strPeer(GetPeerText(*aTransport)),
      m_strChallenge(SharedSecret::MakeChallenge()) {}

RecvSession::~RecvSession() {
    CloseAll();
    if (m_pTransport)
        m_pTransport->Disconnect(CM_OK);
}

CmResult RecvSession::Open() {
    // Detects a sender whose machine has disappeared.
    DWORD dwOn = 1;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_KEEPALIVE, &dwOn);
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue(HELLO_SECONDS), 1);
    return rv == CM_OK ? m_pTransport->OpenWithSink(this) : rv;
}

void RecvSession::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    m_llHeard = CCmClock::GetTimeOfDayUsec();
    EndUnless([&] {
        const FrameParser::EResult result = m_Parser.Feed(aData, *this);
        if (result == FrameParser::BROKEN)
            Fault(CAUSE_PROTOCOL, "it does not speak the protocol of talvo send");
        return result == FrameParser::ALL_READ;
    });
}

void RecvSession::OnSend(ICmTransport*, CCmTransportParameter*) { m_Answers.SendRest(*m_pTransport); }

void RecvSession::OnDisconnect(CmResult aReason, ICmTransport*) {
    EndUnless([&] {
        m_Fault = DescribeEnd("the connection", *m_pTransport, aReason);
        return false;
    });
}

void RecvSession::OnTimer(CCmTimerWrapperID* aId) {
    EndUnless([&] {
        if (aId == &m_HashTimer)
            return HashBeginnings();
        if (aId == &m_IdleTimer)
            return OnIdle();
        if (m_State == SERVING)
            return Answer(EncodeFrame(EFrame::ALIVE));
        if (IsSuspended())
            return m_Timer.Schedule(this, CCmTimeValue(HELLO_SECONDS), 1) == CM_OK;
        return Fault(CAUSE_TIMEOUT, "it sent nothing for " + std::to_string(HELLO_SECONDS) + " seconds");
    });
}

bool RecvSession::IsSuspended() const {
    CCmReconnectStatus gaps;
    return m_pTransport->GetOption(CM_OPT_TRANSPORT_RECONNECT_STATUS, &gaps) == CM_OK && gaps.m_bSuspended;
}

// A sender waits for its own input, for the comparison of a beginning, or for a connection.
bool RecvSession::IsExpectedSilence() const {
    return IsSuspended() || std::any_of(m_Files.begin(), m_Files.end(), [](const auto& aFile) {
               return aFile.second.m_ullSize == UNKNOWN_SIZE || aFile.second.m_bOffered;
           });
}

bool RecvSession::OnIdle() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    if (IsExpectedSilence())
        m_llHeard = llNow;
    const int64_t llLeft = m_llHeard + int64_t{m_Context.m_dwSilenceMs} * 1000 - llNow;
    if (llLeft > 0)
        return m_IdleTimer.Schedule(this, CCmTimeValue::FromUsec(llLeft), 1) == CM_OK;
    return Fault(CAUSE_TIMEOUT, "it sent nothing for " + std::to_string(m_Context.m_dwSilenceMs) + " ms");
}

// If memory runs out inside aStep, only this session ends.
template <class Step>
void RecvSession::EndUnless(const Step& aStep) {
    bool bGoesOn = false;
    if (!talvo::WithMemory([&] { bGoesOn = aStep(); }))
        m_Fault = {CAUSE_LOCAL, OUT_OF_MEMORY};
    if (!bGoesOn)
        End();
}

bool RecvSession::OnFrame(EFrame aType, std::string_view aPayload) {
    if ((aType == EFrame::HELLO) != (m_State == WAIT_HELLO))
        return Fault(CAUSE_PROTOCOL, "it does not begin with one HELLO, as talvo send does");
    if ((aType == EFrame::PROOF) != (m_State == WAIT_PROOF) && m_State != WAIT_HELLO)
        return Fault(CAUSE_REFUSED,
                     m_State == WAIT_PROOF ? "it has not proved the shared secret" : "it proves a secret that nobody demands");
    switch (aType) {
    case EFrame::HELLO:
        return OnHello(aPayload);
    case EFrame::PROOF:
        return OnProof(aPayload);
    case EFrame::FILE:
        return OnFile(aPayload);
    case EFrame::FOLDER:
        return OnFolder(aPayload);
    case EFrame::RESUME:
        return OnResume(DecodeId(aPayload), aPayload.substr(aPayload.size() - HASH_BYTES));
    case EFrame::END:
        return OnEnd(DecodeId(aPayload), aPayload.substr(sizeof(DWORD)));
    case EFrame::ABORT:
        return OnAbort(DecodeId(aPayload), aPayload.substr(sizeof(DWORD)));
    case EFrame::BYE:
        return OnBye();
    case EFrame::DATA:
    case EFrame::ACCEPT:
    case EFrame::RESULT:
    case EFrame::WELCOME:
    case EFrame::VERDICT:
    case EFrame::ALIVE:
    case EFrame::DROPPED:
    case EFrame::PROVED:
        break;
    }
    return Fault(CAUSE_PROTOCOL, "it sent a frame that only a receiver sends");
}

bool RecvSession::OnHello(std::string_view aPayload) {
    if (!DecodeHello(aPayload, m_strPeerChallenge))
        return Fault(CAUSE_PROTOCOL, "it speaks another version of the protocol");
    if (m_strChallenge.empty())
        return Fault(CAUSE_LOCAL, "the system has no random numbers");
    const bool bDemands = m_Context.m_Secret.IsSet();
    if (bDemands)
        m_State = WAIT_PROOF;
    return Answer(EncodeWelcome(bDemands, m_strChallenge)) && (bDemands || BeginServing());
}

bool RecvSession::OnProof(std::string_view aPayload) {
    const SharedSecret& secret = m_Context.m_Secret;
    if (!secret.Check(SharedSecret::SENDER, m_strPeerChallenge, m_strChallenge, aPayload))
        return Fault(CAUSE_REFUSED, "it has another shared secret");
    return Answer(EncodeFrame(EFrame::PROVED, secret.Prove(SharedSecret::RECEIVER, m_strPeerChallenge, m_strChallenge))) &&
           BeginServing();
}

bool RecvSession::BeginServing() {
    m_State = SERVING;
    m_Context.m_Meter.Begin();
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(SIGN_SECONDS)));
    return OnIdle();
}

bool RecvSession::DecodeNew(std::string_view aPayload, FrameEntry& aEntry) {
    if (!DecodeEntry(aPayload, aEntry) || m_Files.contains(aEntry.m_dwId) || m_Folders.contains(aEntry.m_dwId) ||
        m_Skipped.contains(aEntry.m_dwId))
        return Fault(CAUSE_PROTOCOL, "it began a file with a bad frame");
    if (!std::exchange(m_bBegan, true) && !m_Context.m_Owner.OnSessionBegin(*this))
        return Fault(CAUSE_REFUSED, "another sender is being served");
    return m_Files.size() + m_Folders.size() + m_Skipped.size() < MOST_OPEN ||
           Fault(CAUSE_PROTOCOL, "it began too many files at once");
}

// Null: aProblem is why nothing can be put there.
std::shared_ptr<IncomingFolder> RecvSession::FindFolder(const FrameEntry& aEntry, std::string& aProblem) const {
    aProblem = CheckFileName(aEntry.m_strName);
    const auto it = m_Folders.find(aEntry.m_dwFolder);
    if (aProblem.empty() && aEntry.m_dwFolder != OUT_FOLDER && it == m_Folders.end())
        aProblem = "its folder was refused";
    if (!aProblem.empty())
        return nullptr;
    return aEntry.m_dwFolder == OUT_FOLDER ? m_Context.m_pOut : it->second;
}

bool RecvSession::OnFile(std::string_view aPayload) {
    FrameEntry entry;
    if (!DecodeNew(aPayload, entry))
        return false;
    std::string strProblem;
    const std::shared_ptr<IncomingFolder> pFolder = FindFolder(entry, strProblem);
    if (entry.m_ullSize > uint64_t{std::numeric_limits<int64_t>::max()} && entry.m_ullSize != UNKNOWN_SIZE)
        strProblem = "no file can have that size";
    if (!strProblem.empty())
        return Refuse(entry.m_dwId, pFolder ? pFolder->GetPath(entry.m_strName) : entry.m_strName, {CAUSE_REFUSED, strProblem});
    File& file = m_Files.try_emplace(entry.m_dwId, pFolder, entry, m_Context.m_bForce).first->second;
    file.m_ullMetered = entry.m_ullSize == UNKNOWN_SIZE ? 0 : entry.m_ullSize;
    m_Context.m_Meter.Expect(file.m_ullMetered);
    const Failure failure = file.m_Disk.Open();
    if (failure)
        return RefuseCurrent(entry.m_dwId, failure, false);
    file.m_bOffered = file.m_Disk.GetBeginning() > 0;
    if (file.m_bOffered)
        RequireMemory(m_HashTimer.Schedule(this, CCmTimeValue::s_tvZero, 1));
    return Answer(EncodeAccept(entry.m_dwId, file.m_Disk.GetBeginning()));
}

bool RecvSession::OnFolder(std::string_view aPayload) {
    FrameEntry entry;
    if (!DecodeNew(aPayload, entry))
        return false;
    std::string strProblem;
    const std::shared_ptr<IncomingFolder> pParent = FindFolder(entry, strProblem);
    const std::string strPath = pParent ? pParent->GetPath(entry.m_strName) : entry.m_strName;
    if (!pParent)
        return Refuse(entry.m_dwId, strPath, {CAUSE_REFUSED, strProblem});
    const auto pFolder = std::make_shared<IncomingFolder>(strPath);
    const Failure failure = pFolder->Open(*pParent, entry);
    if (failure)
        return Refuse(entry.m_dwId, strPath, failure);
    m_Folders.emplace(entry.m_dwId, pFolder);
    m_Context.m_Meter.BeginSearch();
    return Answer(EncodeAccept(entry.m_dwId, 0));
}

// Turn by turn, so that the other senders are served meanwhile.
bool RecvSession::HashBeginnings() {
    for (auto& [dwId, file] : m_Files) {
        if (!file.m_bOffered || file.m_bHashed)
            continue;
        RequireMemory(m_HashTimer.Schedule(this, CCmTimeValue::s_tvZero, 1));
        file.m_bHashed = file.m_Disk.HashBeginning();
        return Decide(dwId, file);
    }
    return true;
}

bool RecvSession::OnResume(DWORD aId, std::string_view aHash) {
    const auto it = m_Files.find(aId);
    if (it == m_Files.end())
        return m_Skipped.contains(aId) || Fault(CAUSE_PROTOCOL, "it continues a file that it had not begun");
    if (!it->second.m_bOffered || !it->second.m_strSendersHash.empty())
        return Fault(CAUSE_PROTOCOL, "it continues a file of which nothing is here");
    it->second.m_strSendersHash = aHash;
    return Decide(aId, it->second);
}

// When both ends have their hash of the beginning.
bool RecvSession::Decide(DWORD aId, File& aFile) {
    if (!aFile.m_bHashed || aFile.m_strSendersHash.empty())
        return true;
    aFile.m_bOffered = false;
    const bool bSame = aFile.m_Disk.GetHash() == aFile.m_strSendersHash;
    const uint64_t ullBeginning = aFile.m_Disk.GetBeginning();
    const Failure failure = bSame ? Failure() : aFile.m_Disk.Restart();
    if (failure)
        return RefuseCurrent(aId, failure, true);
    if (bSame) {
        aFile.m_Disk.GoOn();
        aFile.m_ullGot = aFile.m_ullContinued = ullBeginning;
        aFile.m_ullMetered -= ullBeginning;
        m_Context.m_Meter.Waive(ullBeginning);
    }
    return Answer(EncodeVerdict(aId, bSame));
}

bool RecvSession::OnData(DWORD aId, std::string_view aPiece) {
    if (m_Skipped.contains(aId))
        return true;
    const auto it = m_Files.find(aId);
    if (it == m_Files.end() || it->second.m_bOffered || aPiece.size() > it->second.m_ullSize - it->second.m_ullGot)
        return Fault(CAUSE_PROTOCOL, "it sent data that belongs to no file");
    File& file = it->second;
    Failure failure = file.m_Disk.Write(aPiece);
    if (failure) {
        file.m_Disk.KeepPart();  // for a sender that comes when the disk has room
        failure.m_strReason += file.m_Disk.IsKept() ? "; the received part stays, and can be continued" : "";
        return RefuseCurrent(aId, failure, true);
    }
    file.m_ullGot += aPiece.size();
    m_Context.m_Meter.Advance(aPiece.size());
    return true;
}

// The END of a folder does not wait for the answer to its FOLDER, so that of a refused one may come. It has no hash.
bool RecvSession::OnEnd(DWORD aId, std::string_view aHash) {
    if (m_Skipped.erase(aId) > 0)
        return true;
    if (m_Folders.contains(aId))
        return EndFolder(aId);
    const auto it = m_Files.find(aId);
    if (it == m_Files.end())
        return aHash.empty() || Fault(CAUSE_PROTOCOL, "it ended a file that it had not begun");
    const File& file = it->second;
    if (file.m_bOffered || (file.m_ullSize != UNKNOWN_SIZE && file.m_ullGot != file.m_ullSize))
        return Fault(CAUSE_PROTOCOL, "it ended a file too early");
    return Keep(aId, aHash);
}

bool RecvSession::EndFolder(DWORD aId) {
    const std::shared_ptr<IncomingFolder> pFolder = m_Folders.at(aId);
    m_Folders.erase(aId);
    m_Context.m_Meter.EndSearch();
    const Failure failure = pFolder->Finish();
    return failure ? Refuse(aId, pFolder->GetPath(""), failure) : Answer(EncodeResult(aId, true, ""));
}

bool RecvSession::Keep(DWORD aId, std::string_view aHash) {
    File& file = m_Files.at(aId);
    const std::string strHash = file.m_Disk.GetHash();
    if (strHash.empty() || strHash != aHash)
        return RefuseCurrent(aId, {CAUSE_PROTOCOL, "the data was damaged: the SHA-256 differs"}, false);
    const Failure failure = file.m_Disk.Publish();
    if (failure)
        return RefuseCurrent(aId, failure, false);
    talvo::WithMemory([&] { ReportKept(file, aHash); });  // a file that is there is acknowledged, with or without a line
    CloseFile(aId);
    return Answer(EncodeResult(aId, true, ""));
}

void RecvSession::ReportKept(const File& aFile, std::string_view aHash) const {
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - aFile.m_llStarted) / 1e6;
    std::string strText = "received " + aFile.m_strPath + " from " + m_strPeer + ": " + FormatBytes(aFile.m_ullGot);
    if (aFile.m_ullContinued > 0)
        strText += ", of which " + FormatBytes(aFile.m_ullContinued) + " were here already";
    m_Context.m_Console.Report(strText, JsonLine("received")
                                            .Add("name", aFile.m_strPath)
                                            .Add("peer", m_strPeer)
                                            .Add("bytes", aFile.m_ullGot - aFile.m_ullContinued)
                                            .Add("size", aFile.m_ullGot)
                                            .Add("seconds", dSeconds)
                                            .Add("sha256", ToHex(aHash)));
}

bool RecvSession::OnAbort(DWORD aId, std::string_view aReason) {
    if (m_Skipped.erase(aId) > 0)
        return true;
    if (!m_Files.contains(aId))
        return Fault(CAUSE_PROTOCOL, "it aborted a file that it had not begun");
    return RefuseCurrent(aId, {CAUSE_REFUSED, "the sender aborted: " + std::string(aReason)}, false);
}

bool RecvSession::OnBye() {
    if (!m_Files.empty() || !m_Folders.empty())
        return Fault(CAUSE_PROTOCOL, "it ended the session within a file");
    m_bSaidBye = true;
    return false;
}

bool RecvSession::Fault(ECause aCause, std::string_view aText) {
    m_Fault = {aCause, std::string(aText)};
    return false;
}

// The peer reads its answers: one for which they pile up breaks the protocol. OnDisconnect reports a lost connection.
bool RecvSession::Answer(std::string_view aFrame) {
    const CmResult rv = m_Answers.Send(*m_pTransport, aFrame);
    RequireMemory(rv);
    return rv != CM_ERROR_PARTIAL_DATA || m_Answers.GetCount() < MOST_ANSWERS ||
           Fault(CAUSE_PROTOCOL, "it does not read the answers");
}

bool RecvSession::RefuseCurrent(DWORD aId, const Failure& aFailure, bool aSkip) {
    const std::string strPath = m_Files.at(aId).m_strPath;
    CloseFile(aId);
    if (aSkip)
        m_Skipped.insert(aId);
    return Refuse(aId, strPath, aFailure);
}

bool RecvSession::Refuse(DWORD aId, const std::string& aPath, const Failure& aFailure) {
    ++m_nRefused;
    m_Context.m_Console.Problem("refused " + aPath + " from " + m_strPeer + ": " + aFailure.m_strReason,
                                JsonLine::Failed(aFailure).Add("name", aPath).Add("peer", m_strPeer));
    return Answer(EncodeResult(aId, false, aFailure.m_strReason));
}

void RecvSession::CloseFile(DWORD aId) {
    const auto it = m_Files.find(aId);
    const uint64_t ullMoved = it->second.m_ullGot - it->second.m_ullContinued;
    if (it->second.m_ullMetered > ullMoved)
        m_Context.m_Meter.Waive(it->second.m_ullMetered - ullMoved);
    m_Files.erase(it);
}

// The parts stay for a later session.
void RecvSession::CloseAll() {
    for (; !m_Folders.empty(); m_Folders.erase(m_Folders.begin()))
        m_Context.m_Meter.EndSearch();
    while (!m_Files.empty()) {
        m_Files.begin()->second.m_Disk.KeepPart();
        CloseFile(m_Files.begin()->first);
    }
    if (m_State == SERVING)
        m_Context.m_Meter.End();
    m_State = OVER;
}

void RecvSession::ReportEnd() {
    if (m_bSaidBye)
        return;
    std::vector<std::string> vecNames;
    std::string strText = "dropped " + m_strPeer + ": " + m_Fault.m_strReason;
    for (auto& [dwId, file] : m_Files) {
        vecNames.push_back(file.m_strPath);
        const uint64_t ullHad = std::max(file.m_ullGot, file.m_Disk.GetBeginning());
        strText += "; " + file.m_strPath + (file.m_Disk.IsKept() ? " can be continued (" : " was removed (") +
                   FormatBytes(ullHad) + " had arrived)";
    }
    m_Context.m_Console.Problem(strText, JsonLine::Failed(m_Fault).Add("peer", m_strPeer).Add("incomplete", vecNames));
    if (m_State != WAIT_HELLO)
        m_Answers.Send(*m_pTransport, EncodeFrame(EFrame::DROPPED, m_Fault.m_strReason.substr(0, MAX_REASON)));
}

void RecvSession::End() {
    for (auto& [dwId, file] : m_Files)
        file.m_Disk.KeepPart();
    if (!talvo::WithMemory([this] { ReportEnd(); }))
        ComplainOfMemory();
    m_Timer.Cancel();
    m_HashTimer.Cancel();
    m_IdleTimer.Cancel();
    CloseAll();
    m_Context.m_Owner.OnSessionEnd(*this, m_bSaidBye && m_nRefused == 0);
}

}  // namespace tool
