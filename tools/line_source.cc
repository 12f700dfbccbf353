#include "tools/line_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int LINES_PER_TURN = 256;  // then the loop handles other handles
constexpr size_t READ_SIZE = 16384;
constexpr int64_t SECOND = 1000000;

ICmReactor& MainReactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

LineSource::LineSource(LineSink& aSink, DWORD aRate, size_t aLongest) : m_Sink(aSink), m_dwRate(aRate), m_Splitter(aLongest) {}

LineSource::~LineSource() {
    Await(false);
    if (m_nFd > STDIN_FILENO)
        close(m_nFd);
}

std::string LineSource::Start(const std::string& aPath) {
    m_nFd = aPath.empty() ? STDIN_FILENO : open(aPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_nFd < 0)
        return "cannot read '" + aPath + "': " + SystemError(errno);
    struct stat status {};
    if (fstat(m_nFd, &status) == 0 && S_ISDIR(status.st_mode))
        return "cannot read '" + aPath + "': " + SystemError(EISDIR);
    // The reactor refuses regular files, which are always readable.
    m_bPolled = MainReactor().RegisterHandler(this, READ_MASK) == CM_OK;
    m_bRegistered = m_bPolled;
    m_llStart = CCmClock::GetTimeOfDayUsec();
    if (!m_bPolled)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
    return "";
}

void LineSource::GoOn() {
    m_bRefused = false;
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
}

int LineSource::OnInput(HANDLE) {
    constexpr int WOULD_BLOCK = -2;
    if (!Read())
        return WOULD_BLOCK;
    Turn();
    return 0;
}

// The writer has closed its end: a read gives the rest, and does not wait.
int LineSource::OnClose(HANDLE, long) {
    m_bPolled = m_bRegistered = false;
    if (!m_bRefused)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1));
    return 0;
}

void LineSource::OnTimer(CCmTimerWrapperID*) { Turn(); }

// Offers lines until there is a reason to wait: for input, for time, for the sink or for the other work of the loop.
void LineSource::Turn() {
    for (int i = 0; i < LINES_PER_TURN; ++i) {
        if (m_bRefused)
            return Await(false);
        if (m_nFd < 0)
            return;
        if (!m_bHasLine)
            m_bHasLine = m_Splitter.Next(m_Line);
        if (!m_bHasLine && m_bAtEnd)
            return Finish("");
        if (!m_bHasLine && m_bPolled)
            return Await(true);
        if (!m_bHasLine) {
            Read();
            continue;
        }
        if (GetWait() > 0)
            break;
        if (!OfferNext())
            return Await(false);
    }
    Await(false);
    RequireMemory(m_Timer.Schedule(this, CCmTimeValue::FromUsec(GetWait()), 1));
}

bool LineSource::OfferNext() {
    m_bRefused = !m_Sink.OnLine(m_Line);
    m_bHasLine = m_bRefused;
    m_ullTaken += !m_bRefused;
    return !m_bRefused;
}

// Never waits for a terminal or a pipe, which may be blocking because other programs share it. false: nothing was read.
bool LineSource::Read() {
    char buffer[READ_SIZE];
    pollfd entry{m_nFd, POLLIN, 0};
    if (m_bPolled && poll(&entry, 1, 0) <= 0)
        return false;
    const ssize_t nRead = read(m_nFd, buffer, sizeof(buffer));
    if (nRead < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (nRead < 0) {
        Finish(SystemError(errno));
        return false;
    }
    m_Splitter.Feed({buffer, static_cast<size_t>(nRead)});
    m_bAtEnd = nRead == 0;
    if (m_bAtEnd)
        m_bHasLine = m_Splitter.TakeRest(m_Line);
    return true;
}

void LineSource::Await(bool aInput) {
    if (aInput == m_bRegistered || !m_bPolled)
        return;
    m_bRegistered = aInput;
    if (aInput)
        RequireMemory(MainReactor().RegisterHandler(this, READ_MASK));
    else
        MainReactor().RemoveHandler(this, ALL_EVENTS_MASK);
}

void LineSource::Finish(const std::string& aProblem) {
    Await(false);
    m_Timer.Cancel();
    m_bRefused = true;  // no turn offers more
    m_Sink.OnEnd(aProblem);
}

// Microseconds until the next line is due.
int64_t LineSource::GetWait() const {
    if (m_dwRate == 0)
        return 0;
    const int64_t llDue = m_llStart + static_cast<int64_t>(m_ullTaken * SECOND / m_dwRate);
    return std::max<int64_t>(llDue - CCmClock::GetTimeOfDayUsec(), 0);
}

}  // namespace tool
