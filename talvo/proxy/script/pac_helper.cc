#include "talvo/proxy/script/pac_helper.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/script/pac_zone.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CPacHelper");

constexpr time_t IDLE_SECONDS = 60;
constexpr time_t LOAD_SECONDS = 2;
constexpr time_t FIND_SECONDS = 5;
constexpr DWORD MOST_NAMES = 20;
constexpr DWORD MOST_OWN_NAMES = 2;  // the questions for this machine's addresses, each once
constexpr DWORD MOST_ALERTS = 100;
constexpr size_t MOST_NAME_BYTES = 253;
constexpr size_t MOST_ALERT_BYTES = 1024;  // 256 characters
constexpr size_t MOST_ANSWER_BYTES = 4096;
constexpr size_t PIECE = 16 * 1024;  // of the stream
constexpr const char* WRONG_FRAME = "the helper does not keep to the protocol";

}  // namespace

CPacHelper::CPacHelper(ICmReactor& aReactor, IPacHelperUser& aUser) : m_Reactor(&aReactor), m_pUser(&aUser) { ++s_Live; }

CPacHelper::~CPacHelper() {
    Close();
    --s_Live;
}

CmResult CPacHelper::Start(const CCmString& aPath) {
    CChildProgram program;
    program.m_strPath = aPath;  // may throw, so before there is a socket
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) == -1)
        return CM_ERROR_FAILURE;
    m_Socket = sockets[0];
    fcntl(m_Socket, F_SETFL, O_NONBLOCK);  // this end alone
    program.m_Input = sockets[1];
    CmResult rv = m_Process.Start(program, *this);
    close(sockets[1]);
    if (rv == CM_OK)
        rv = m_Reactor->RegisterHandler(this, READ_MASK | WRITE_MASK);
    return rv == CM_OK ? SetState_i(FREE, CCmTimeValue(IDLE_SECONDS)) : rv;
}

void CPacHelper::Close() {
    m_pUser = nullptr;
    m_State = ENDED;
    m_Timer.Cancel();
    m_Names.Cancel();
    m_pJob.Reset();
    if (m_Socket != CM_INVALID_HANDLE) {
        m_Reactor->RemoveHandler(this, ALL_EVENTS_MASK);
        close(std::exchange(m_Socket, CM_INVALID_HANDLE));
    }
    m_Process.Kill();
}

// The timer of the first state needs memory; the later states replace it.
CmResult CPacHelper::SetState_i(EState aState, const CCmTimeValue& aLimit) {
    m_State = aState;
    m_dwNames = m_dwOwnNames = m_dwAlerts = 0;
    return m_Timer.Schedule(this, aLimit, 1);
}

void CPacHelper::Run(const PacJobPtr& aJob) {
    CCmRefPtrT<CPacHelper> pKeep(this);
    m_pJob = aJob;
    if (!WithMemory([this] { HasLoaded(m_pJob->m_pScript->m_ullVersion) ? SendFind_i() : SendLoad_i(); }))
        Fail_i("memory ran out");
}

// The script needs time and zone already when it is loaded.
void CPacHelper::AddClock_i(CPacFrameWriter& aFrame) const {
    const CPacQuestion& question = m_pJob->m_Question;
    const int64_t llTime = question.m_llTimeUsec == -1 ? CCmClock::GetWallUsec() : question.m_llTimeUsec;
    aFrame.AddNumber(static_cast<uint64_t>(llTime), 8);
    aFrame.AddText(PosixZoneOf(question.m_strZone, llTime / 1'000'000));
}

void CPacHelper::SendLoad_i() {
    m_ullVersion = 0;
    SetState_i(LOADING, CCmTimeValue(LOAD_SECONDS));
    CPacFrameWriter frame(EPacFrame::LOAD);
    AddClock_i(frame);
    frame.AddRest(m_pJob->m_pScript->m_strText);
    Send_i(frame);
}

void CPacHelper::SendFind_i() {
    SetState_i(FINDING, CCmTimeValue(FIND_SECONDS));
    CPacFrameWriter frame(EPacFrame::FIND);
    AddClock_i(frame);
    frame.AddText(m_pJob->m_Question.m_strUrl);
    frame.AddText(m_pJob->m_Question.m_strHost);
    Send_i(frame);
}

void CPacHelper::Send_i(CPacFrameWriter& aFrame) {
    const CCmString strFrame = aFrame.Finish();
    if (strFrame.empty())
        return EndJob_i(EPacEnd::LOAD_FAILED, "the script is too long");
    m_strUnsent += strFrame;
    OnOutput(m_Socket);
}

int CPacHelper::OnOutput(HANDLE) {
    while (!m_strUnsent.empty()) {
        const ssize_t lSent = send(m_Socket, m_strUnsent.data(), m_strUnsent.size(), MSG_NOSIGNAL);
        if (lSent == -1 && errno == EINTR)
            continue;
        if (lSent == -1) {
            OnSocketError_i();
            break;
        }
        m_strUnsent.erase(0, static_cast<size_t>(lSent));
    }
    return -2;
}

// Of a send or a receive. Unless the socket is full or empty, the process is killed, and the report of its end follows.
void CPacHelper::OnSocketError_i() {
    m_bReset = m_bReset || errno == ECONNRESET;
    if (errno != EAGAIN)
        m_Process.Kill();
}

// One piece a call, so that a helper that never stops sending delays neither the timer nor other handlers.
int CPacHelper::OnInput(HANDLE) {
    CCmRefPtrT<CPacHelper> pKeep(this);
    char buffer[PIECE];
    const ssize_t lRead = recv(m_Socket, buffer, sizeof buffer, 0);
    if (lRead == -1 && errno == EINTR)
        return 0;
    if (lRead == -1)
        OnSocketError_i();
    if (lRead <= 0)
        return -2;
    const char* szFault = "memory ran out";
    WithMemory([&] {
        m_Reader.Add({buffer, static_cast<size_t>(lRead)});
        szFault = TakeFrames_i();
    });
    if (szFault)
        Fail_i(szFault);
    return 0;
}

int CPacHelper::OnClose(HANDLE, long) {
    m_Process.Kill();  // the report of its end follows
    return 0;
}

void CPacHelper::OnChildEnd(const CChildEnd& aEnd) {
    CCmRefPtrT<CPacHelper> pKeep(this);
    Fail_i(aEnd.m_nExit == 4 ? "the script needs too much memory" : "the helper has ended", IsUnread_i());
}

// TRUE: the question is unread, and no script had a part in the end of the process. The socket reports unread bytes as a reset,
// once; a name answer is not the question.
BOOL CPacHelper::IsUnread_i() {
    int nError = 0;
    socklen_t length = sizeof nError;
    getsockopt(m_Socket, SOL_SOCKET, SO_ERROR, &nError, &length);
    const BOOL bLost = m_bReset || nError == ECONNRESET || !m_strUnsent.empty();
    return bLost && m_dwNames + m_dwOwnNames == 0;
}

void CPacHelper::OnTimer(CCmTimerWrapperID*) {
    CCmRefPtrT<CPacHelper> pKeep(this);
    if (m_State != FREE)
        return Fail_i(m_State == LOADING ? "the load took more than 2 s" : "the evaluation took more than 5 s");
    IPacHelperUser* pUser = m_pUser;
    Close();
    if (pUser)
        pUser->OnHelperEnd(*this, FALSE);
}

// Each returns the fault for which the process must be killed, or null.
const char* CPacHelper::TakeFrames_i() {
    EPacFrame kind{};
    std::string_view strPayload;
    CPacFrameReader::EStep step{};
    while (m_State != ENDED && (step = m_Reader.Take(kind, strPayload)) == CPacFrameReader::FRAME) {
        if (const char* szFault = OnFrame_i(kind, strPayload))
            return szFault;
    }
    return step == CPacFrameReader::BROKEN ? WRONG_FRAME : nullptr;
}

const char* CPacHelper::OnFrame_i(EPacFrame aKind, std::string_view aPayload) {
    if (m_State == FREE || m_bNameUnderWay)
        return WRONG_FRAME;
    switch (aKind) {
    case EPacFrame::RESULT:
        return OnResult_i(aPayload);
    case EPacFrame::FAILURE:
        return OnFailure_i(aPayload);
    case EPacFrame::NAME:
        return OnName_i(aPayload);
    case EPacFrame::ALERT:
        return OnAlert_i(aPayload);
    case EPacFrame::LOAD:
    case EPacFrame::FIND:
    case EPacFrame::NAME_ANSWER:
        return WRONG_FRAME;
    }
    return WRONG_FRAME;
}

const char* CPacHelper::OnResult_i(std::string_view aPayload) {
    if (m_State == FINDING) {
        if (aPayload.size() > MOST_ANSWER_BYTES)
            return "the answer has more than 4,096 bytes";
        EndJob_i(EPacEnd::ANSWER, aPayload);
        return nullptr;
    }
    static BOOL s_bReported = FALSE;
    if (aPayload != "confined" && !std::exchange(s_bReported, TRUE))
        CM_WARNING_TRACE("CPacHelper::OnResult_i, the kernel does not filter the system calls of the helper.");
    m_ullVersion = m_pJob->m_pScript->m_ullVersion;
    SendFind_i();
    return nullptr;
}

const char* CPacHelper::OnFailure_i(std::string_view aPayload) {
    uint64_t ullLine = 0;
    if (!TakePacNumber(aPayload, 4, ullLine))
        return WRONG_FRAME;
    CCmString strError = CleanPacText(aPayload, MOST_ANSWER_BYTES - 32);
    if (ullLine != 0)
        strError += ", line " + std::to_string(ullLine);
    EndJob_i(m_State == LOADING ? EPacEnd::LOAD_FAILED : EPacEnd::SCRIPT_FAILED, strError);
    return nullptr;
}

const char* CPacHelper::OnName_i(std::string_view aPayload) {
    const char cKind = aPayload.empty() ? '\0' : aPayload[0];
    if (!CPacNameLookUp::IsKind(cKind) || aPayload.size() > 1 + MOST_NAME_BYTES)
        return WRONG_FRAME;
    const BOOL bHasName = CPacNameLookUp::HasName(cKind);
    DWORD& dwCount = bHasName ? m_dwNames : m_dwOwnNames;
    if (++dwCount > (bHasName ? MOST_NAMES : MOST_OWN_NAMES))
        return "the script asks for more than 20 names";
    m_bNameUnderWay = TRUE;
    m_Names.Start(cKind, CCmString(aPayload.substr(1)));
    return nullptr;
}

void CPacHelper::OnPacName(const CCmString& aAddresses) {
    CCmRefPtrT<CPacHelper> pKeep(this);
    m_bNameUnderWay = FALSE;
    if (!WithMemory([&] {
            CPacFrameWriter frame(EPacFrame::NAME_ANSWER);
            frame.AddRest(aAddresses);
            Send_i(frame);
        }))
        Fail_i("memory ran out");
}

const char* CPacHelper::OnAlert_i(std::string_view aPayload) {
    if (aPayload.size() > MOST_ALERT_BYTES)
        return WRONG_FRAME;
    if (++m_dwAlerts > MOST_ALERTS)
        return "the script has more than 100 alerts";
    const CCmString strText = CleanPacText(aPayload, MOST_ALERT_BYTES);
    const PacJobPtr pJob = m_pJob;
    if (pJob->m_pSink)
        pJob->m_pSink->OnPacAlert(strText);
    return nullptr;
}

void CPacHelper::EndJob_i(EPacEnd aEnd, std::string_view aText) {
    SetState_i(FREE, CCmTimeValue(IDLE_SECONDS));
    const PacJobPtr pJob = std::exchange(m_pJob, nullptr);
    if (m_pUser)
        m_pUser->OnJobEnd(pJob, aEnd, aText);
    if (m_pUser && m_State == FREE)
        m_pUser->OnHelperFree();
}

// The process is of no use any more: its next bytes would answer an earlier question.
void CPacHelper::Fail_i(const char* aWhy, BOOL aUnread) {
    if (m_State == ENDED)
        return;
    const EPacEnd end = m_State == LOADING ? EPacEnd::LOAD_FAILED : EPacEnd::LIMIT;
    CM_WARNING_TRACE_THIS("CPacHelper::Fail_i, the helper is killed: " << aWhy << ".");
    const PacJobPtr pJob = m_pJob;
    IPacHelperUser* pUser = m_pUser;
    Close();
    if (!pUser)
        return;
    const BOOL bAgain = pJob && aUnread && pUser->OnJobUnread(pJob);
    pUser->OnHelperEnd(*this, TRUE);
    if (pJob && !bAgain)
        pUser->OnJobEnd(pJob, end, aWhy);
}

}  // namespace talvo
