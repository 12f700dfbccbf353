#include "tools/recv_session.h"

#include <limits>

#include "tools/endpoint.h"
#include "tools/file_name.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr long HELLO_SECONDS = 10;
constexpr long SIGN_SECONDS = 30;
constexpr const char* OUT_OF_MEMORY = "out of memory";  // so short that a string holds it without an allocation

}  // namespace

RecvSession::RecvSession(const RecvContext& aContext, ICmTransport* aTransport)
    : m_Context(aContext), m_pTransport(aTransport), m_strPeer(GetPeerText(*aTransport)) {}

RecvSession::~RecvSession() {
    CloseFile();
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
    EndUnless([&] {
        const FrameParser::EResult result = m_Parser.Feed(aData, *this);
        if (result == FrameParser::BROKEN)
            Fault("it does not speak the protocol of talvo send");
        return result == FrameParser::ALL_READ;
    });
}

void RecvSession::OnDisconnect(CmResult aReason, ICmTransport*) {
    EndUnless([&] { return Fault("the connection " + DescribeEnd(*m_pTransport, aReason)); });
}

void RecvSession::OnTimer(CCmTimerWrapperID*) {
    EndUnless([&] {
        CCmReconnectStatus gaps;
        if (m_State == WAIT_HELLO && m_pTransport->GetOption(CM_OPT_TRANSPORT_RECONNECT_STATUS, &gaps) == CM_OK &&
            gaps.m_bSuspended)
            return m_Timer.Schedule(this, CCmTimeValue(HELLO_SECONDS), 1) == CM_OK;
        if (m_State == WAIT_HELLO)
            return Fault("it sent nothing for " + std::to_string(HELLO_SECONDS) + " seconds");
        return Answer(EncodeFrame(EFrame::ACCEPT));
    });
}

// If memory runs out inside aStep, only this session ends.
template <class Step>
void RecvSession::EndUnless(const Step& aStep) {
    bool bGoesOn = false;
    if (!talvo::WithMemory([&] { bGoesOn = aStep(); }))
        m_strFault = OUT_OF_MEMORY;
    if (!bGoesOn)
        End();
}

bool RecvSession::OnFrame(EFrame aType, std::string_view aPayload) {
    if ((aType == EFrame::HELLO) != (m_State == WAIT_HELLO))
        return Fault("it does not begin with one HELLO, as talvo send does");
    switch (aType) {
    case EFrame::HELLO:
        return OnHello(aPayload);
    case EFrame::FILE:
        return OnFile(aPayload);
    case EFrame::END:
        return OnEnd(aPayload);
    case EFrame::ABORT:
        return OnAbort(aPayload);
    case EFrame::BYE:
        return OnBye();
    case EFrame::DATA:
    case EFrame::ACCEPT:
    case EFrame::RESULT:
        break;
    }
    return Fault("it sent a frame that only a receiver sends");
}

bool RecvSession::OnHello(std::string_view aPayload) {
    if (!DecodeHello(aPayload))
        return Fault("it speaks another version of the protocol");
    m_Timer.Cancel();
    m_State = IDLE;
    return m_Context.m_Owner.OnSessionBegin(*this) || Fault("another sender is being served");
}

bool RecvSession::OnFile(std::string_view aPayload) {
    std::string strName;
    uint64_t ullSize = 0;
    if (m_State != IDLE || !DecodeFile(aPayload, ullSize, strName))
        return Fault("it began a file at the wrong time, or with a bad frame");
    if (ullSize > uint64_t{std::numeric_limits<int64_t>::max()})
        return Refuse(strName, "no file can have that size");
    const std::string strBadName = CheckFileName(strName);
    if (!strBadName.empty())
        return Refuse(strName, strBadName);
    const std::string strTaken = IncomingFile::CheckTarget(m_Context.m_nDirectory, strName, m_Context.m_bForce);
    return strTaken.empty() ? Accept(strName, ullSize) : Refuse(strName, strTaken);
}

bool RecvSession::Accept(const std::string& aName, uint64_t aSize) {
    auto pFile = std::make_unique<File>(m_Context.m_nDirectory, aName, aSize);
    const std::string strProblem = pFile->m_Disk.Create();
    if (!strProblem.empty())
        return Refuse(aName, strProblem);
    m_pFile = std::move(pFile);
    m_State = RECEIVING;
    if (m_Context.m_bSignsOfLife)
        m_Timer.Schedule(this, CCmTimeValue(SIGN_SECONDS));
    m_Context.m_Meter.Begin(aSize);
    return Answer(EncodeFrame(EFrame::ACCEPT));
}

bool RecvSession::OnData(std::string_view aPiece) {
    if (m_State == SKIPPING)
        return true;
    if (m_State != RECEIVING || aPiece.size() > m_pFile->m_ullSize - m_pFile->m_ullGot)
        return Fault("it sent data that belongs to no file");
    const std::string strProblem = m_pFile->m_Disk.Write(aPiece);
    if (!strProblem.empty()) {
        m_State = SKIPPING;
        return RefuseCurrent(strProblem);
    }
    m_pFile->m_Hash.Update(aPiece);
    m_pFile->m_ullGot += aPiece.size();
    m_Context.m_Meter.Advance(aPiece.size());
    return true;
}

bool RecvSession::OnEnd(std::string_view aHash) {
    const EState before = m_State;
    m_State = IDLE;
    if (before == SKIPPING)
        return true;
    if (before != RECEIVING || m_pFile->m_ullGot != m_pFile->m_ullSize)
        return Fault("it ended a file too early");
    return Keep(aHash);
}

bool RecvSession::Keep(std::string_view aHash) {
    if (m_pFile->m_Hash.Finish() != aHash)
        return RefuseCurrent("the data was damaged: the SHA-256 differs");
    const std::string strProblem = m_pFile->m_Disk.Publish(m_pFile->m_strName, m_Context.m_bForce);
    if (!strProblem.empty())
        return RefuseCurrent(strProblem);
    talvo::WithMemory([&] { ReportKept(aHash); });  // a file that is there is acknowledged, with or without a line
    CloseFile();
    return Answer(EncodeResult(true, ""));
}

void RecvSession::ReportKept(std::string_view aHash) const {
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - m_pFile->m_llStarted) / 1e6;
    m_Context.m_Console.Report("received " + m_pFile->m_strName + " from " + m_strPeer + ": " + FormatBytes(m_pFile->m_ullSize),
                               JsonLine("received")
                                   .Add("name", m_pFile->m_strName)
                                   .Add("peer", m_strPeer)
                                   .Add("bytes", m_pFile->m_ullSize)
                                   .Add("seconds", dSeconds)
                                   .Add("sha256", ToHex(aHash)));
}

bool RecvSession::OnAbort(std::string_view aReason) {
    const EState before = m_State;
    m_State = IDLE;
    if (before == SKIPPING)
        return true;
    if (before != RECEIVING)
        return Fault("it aborted a file that it had not begun");
    return RefuseCurrent("the sender aborted: " + std::string(aReason));
}

bool RecvSession::OnBye() {
    if (m_State != IDLE)
        return Fault("it ended the session within a file");
    m_bSaidBye = true;
    return false;
}

bool RecvSession::Fault(std::string_view aText) {
    m_strFault = aText;
    return false;
}

// The peer waits for each answer, so answers never queue up: a peer for which they do breaks the protocol.
bool RecvSession::Answer(std::string_view aFrame) {
    const auto dwLength = static_cast<DWORD>(aFrame.size());
    CCmMessageBlock block(dwLength, aFrame.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    const CmResult rv = m_pTransport->SendData(block);
    if (rv == CM_OK)
        return true;
    return Fault(rv == CM_ERROR_PARTIAL_DATA ? "it does not read the answers"
                                             : std::string("the connection broke: ") + cm_result_name(rv));
}

bool RecvSession::RefuseCurrent(const std::string& aReason) {
    const std::string strName = m_pFile->m_strName;
    CloseFile();
    return Refuse(strName, aReason);
}

bool RecvSession::Refuse(const std::string& aName, const std::string& aReason) {
    ++m_nRefused;
    m_Context.m_Console.Problem("refused " + aName + " from " + m_strPeer + ": " + aReason,
                                JsonLine::Failed(CAUSE_REFUSED, aReason).Add("name", aName).Add("peer", m_strPeer));
    return Answer(EncodeResult(false, aReason));
}

void RecvSession::CloseFile() {
    m_Timer.Cancel();
    if (m_pFile)
        m_Context.m_Meter.End(m_pFile->m_ullSize, m_pFile->m_ullGot);
    m_pFile.reset();
}

void RecvSession::ReportEnd() {
    if (m_bSaidBye)
        return;
    JsonLine json = JsonLine::Failed(CAUSE_BROKEN, m_strFault);
    json.Add("peer", m_strPeer);
    std::string strText = "dropped " + m_strPeer + ": " + m_strFault;
    if (m_pFile) {
        json.Add("name", m_pFile->m_strName).Add("bytes", m_pFile->m_ullGot);
        strText += "; " + m_pFile->m_strName + " was removed (" + FormatBytes(m_pFile->m_ullGot) + " of " +
                   FormatBytes(m_pFile->m_ullSize) + " had arrived)";
    }
    m_Context.m_Console.Problem(strText, json);
}

void RecvSession::End() {
    if (!talvo::WithMemory([this] { ReportEnd(); }))
        ComplainOfMemory();
    CloseFile();
    m_Context.m_Owner.OnSessionEnd(*this, m_bSaidBye && m_nRefused == 0);
}

}  // namespace tool
