#include "tools/sender.h"

#include "tools/connecting.h"
#include "tools/connection_type.h"
#include "tools/endpoint.h"
#include "tools/file_name.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int PIECES_PER_TURN = 16;  // then the loop handles other handles, above all signals
constexpr long CLOSING_SECONDS = 2;

}  // namespace

Sender::Sender(const Arguments& aArguments, Application& aApplication, Console& aConsole)
    : m_Arguments(aArguments), m_Application(aApplication), m_Console(aConsole), m_Progress(aConsole) {}

Sender::~Sender() { Close(); }

void Sender::Start() {
    if (StartConnect(m_Arguments, this, m_pConnector) != CM_OK) {
        GiveUp("cannot create a connector");
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
    m_Timer.Cancel();
    m_pTransport = aTrpt;
    ReportRoute(m_Arguments, *m_pTransport, m_Console);
    m_dwMaxPiece = GetMaxMessage(*m_pTransport) - FRAME_HEADER;
    DWORD dwOn = 1;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_KEEPALIVE, &dwOn);
    if (m_pTransport->OpenWithSink(this) != CM_OK)
        GiveUp("cannot use the connection");
    else if (Send(EncodeHello()))
        StartNextFile();
}

void Sender::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_Parser.Feed(aData, *this) != FrameParser::ALL_READ && m_State != CLOSED)
        GiveUp("the peer is no talvo recv: its answer is unknown");
}

void Sender::OnSend(ICmTransport*, CCmTransportParameter*) {
    const CmResult rv = m_Outbox.SendRest(*m_pTransport);
    if (CheckSent(rv) && rv == CM_OK)
        Pump();
}

void Sender::OnDisconnect(CmResult aReason, ICmTransport*) {
    if (m_State == CLOSING)
        Close();
    else
        GiveUp("the connection to " + cm_address_text(m_Arguments.m_Addr) + " " + DescribeEnd(*m_pTransport, aReason) + "; " +
               std::to_string(m_nKept) + " of " + std::to_string(m_Arguments.m_vecFiles.size()) + " files were delivered");
}

void Sender::OnTimer(CCmTimerWrapperID*) {
    if (m_State == CONNECTING)
        GiveUp("cannot connect to " + cm_address_text(m_Arguments.m_Addr) + ": no answer within " +
               std::to_string(CONNECT_SECONDS) + " s");
    else if (m_State == CLOSING)
        Close();
    else
        Pump();
}

bool Sender::OnFrame(EFrame aType, std::string_view aPayload) {
    switch (aType) {
    case EFrame::ACCEPT:
        return OnAccept();
    case EFrame::RESULT:
        return OnResult(aPayload);
    case EFrame::HELLO:
    case EFrame::FILE:
    case EFrame::DATA:
    case EFrame::END:
    case EFrame::ABORT:
    case EFrame::BYE:
        break;
    }
    return false;
}

bool Sender::OnAccept() {
    if (m_State == SENDING || m_State == WAIT_RESULT)
        return true;  // a sign of life
    if (m_State != WAIT_ACCEPT)
        return false;
    m_State = SENDING;
    Pump();
    return m_State != CLOSED;
}

bool Sender::OnResult(std::string_view aPayload) {
    bool bKept = false;
    std::string strReason;
    if (!m_pFile || !DecodeResult(aPayload, bKept, strReason) || (bKept && m_State != WAIT_RESULT))
        return false;
    // The receiver skips data in flight until ABORT or END.
    if (m_State == SENDING)
        Send(EncodeAbort(""));
    CloseFile(bKept, strReason);
    StartNextFile();
    return m_State != CLOSED;
}

void Sender::StartNextFile() {
    while (m_State != CLOSED && m_nNextFile < m_Arguments.m_vecFiles.size()) {
        if (StartFile(m_Arguments.m_vecFiles[m_nNextFile++]))
            return;
    }
    if (m_State == CLOSED)
        return;
    m_State = CLOSING;
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue(CLOSING_SECONDS), 1));
    Send(EncodeFrame(EFrame::BYE));
}

bool Sender::StartFile(const std::string& aPath) {
    auto pFile = std::make_unique<OutgoingFile>(aPath);
    const std::string strProblem = pFile->Open(m_dwMaxPiece);
    if (!strProblem.empty()) {
        ReportFile(aPath, 0, false, strProblem);
        return false;
    }
    m_pFile = std::move(pFile);
    m_llStarted = CCmClock::GetTimeOfDayUsec();
    m_Progress.GetMeter().Begin(m_pFile->GetSize());
    m_State = WAIT_ACCEPT;
    return Send(EncodeFile(m_pFile->GetSize(), GetBaseName(aPath)));
}

void Sender::Pump() {
    for (int i = 0; i < PIECES_PER_TURN && m_State == SENDING; ++i) {
        if (!SendPiece())
            return;
    }
    if (m_State == SENDING)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
}

// false: the transport takes no more at present, or the file is at its end.
bool Sender::SendPiece() {
    const DWORD dwLength = m_pFile->GetNextLength();
    if (dwLength == 0) {
        SendEnd();
        return false;
    }
    CCmMessageBlock block(FRAME_HEADER + dwLength);
    WriteDataHeader(block, dwLength);
    const std::string strProblem = m_pFile->ReadNext(block);
    if (!strProblem.empty()) {
        m_State = WAIT_RESULT;
        Send(EncodeAbort(strProblem));
        return false;
    }
    m_Progress.GetMeter().Advance(dwLength);
    const CmResult rv = m_Outbox.Send(*m_pTransport, block);
    return CheckSent(rv) && rv == CM_OK;
}

void Sender::SendEnd() {
    m_State = WAIT_RESULT;
    m_strHash = m_pFile->FinishHash();
    Send(m_strHash.empty() ? EncodeAbort("SHA-256 is not available") : EncodeFrame(EFrame::END, m_strHash));
}

bool Sender::Send(std::string_view aFrame) { return m_State != CLOSED && CheckSent(m_Outbox.Send(*m_pTransport, aFrame)); }

// OnDisconnect reports a lost connection, with more detail.
bool Sender::CheckSent(CmResult aResult) {
    if (aResult == CM_ERROR_OUT_OF_MEMORY)
        GiveUp("cannot send: out of memory");
    return aResult == CM_OK || aResult == CM_ERROR_PARTIAL_DATA;
}

void Sender::CloseFile(bool aKept, const std::string& aReason) {
    m_Progress.GetMeter().End(m_pFile->GetSize(), m_pFile->GetSent());
    ReportFile(m_pFile->GetPath(), m_pFile->GetSize(), aKept, aReason);
    m_pFile.reset();
}

void Sender::ReportFile(const std::string& aPath, uint64_t aSize, bool aKept, const std::string& aReason) {
    if (!aKept) {
        m_Console.Problem(aPath + " was not delivered: " + aReason, JsonLine::Failed(CAUSE_OTHER, aReason).Add("name", aPath));
        return;
    }
    ++m_nKept;
    const double dSeconds = static_cast<double>(CCmClock::GetTimeOfDayUsec() - m_llStarted) / 1e6;
    const auto ullRate = static_cast<uint64_t>(static_cast<double>(aSize) / (dSeconds > 0 ? dSeconds : 1e-6));
    m_Console.Report(
        "sent " + aPath + ": " + FormatBytes(aSize) + ", " + FormatBytes(ullRate) + "/s",
        JsonLine("sent").Add("name", aPath).Add("bytes", aSize).Add("seconds", dSeconds).Add("sha256", ToHex(m_strHash)));
}

void Sender::GiveUp(const std::string& aText) {
    m_Console.Problem(aText);
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
    m_Application.Finish(m_nKept == m_Arguments.m_vecFiles.size() ? EXIT_OK : EXIT_FAILED);
}

}  // namespace tool
