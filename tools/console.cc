#include "tools/console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "tools/application.h"
#include "tools/colour.h"
#include "tools/text.h"

namespace tool {

namespace {

Console::EVerbosity s_Verbosity = Console::NORMAL;
bool s_bLost = false;
std::function<void()> s_OnLost;

Console::EOutput ChooseOutput(bool aJson) {
    if (aJson)
        return Console::JSON;
    return isatty(STDOUT_FILENO) ? Console::TERMINAL : Console::PIPE;
}

// SIZE_MAX: unknown.
size_t GetColumns() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col - 1U : SIZE_MAX;
}

// Leaves out fields at the end, which commas separate, until the text fits.
std::string FitFields(std::string aText, size_t aColumns) {
    while (Truncated(aText, aColumns).size() < aText.size() && aText.find(", ") != std::string::npos)
        aText.resize(aText.rfind(", "));
    return Truncated(aText, aColumns);
}

// A pipe with room takes a piece whole, so only WaitFor waits.
bool WriteToStdout(std::string_view aText) {
    while (!aText.empty()) {
        if (!Application::WaitFor(STDOUT_FILENO, POLLOUT))
            return false;
        const ssize_t nDone = write(STDOUT_FILENO, aText.data(), std::min<size_t>(aText.size(), PIPE_BUF));
        if (nDone < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        aText.remove_prefix(static_cast<size_t>(std::max<ssize_t>(nDone, 0)));
    }
    return true;
}

}  // namespace

void Console::SetOnLost(std::function<void()> aCall) { s_OnLost = std::move(aCall); }

bool Console::IsLost() { return s_bLost; }

Console::Console(bool aJson) : m_Output(ChooseOutput(aJson)) {}

Console::~Console() { EraseProgress(); }

void Console::SetVerbosity(EVerbosity aVerbosity) { s_Verbosity = aVerbosity; }

void Console::Report(std::string_view aPlain, const JsonLine& aJson) {
    if (s_Verbosity != QUIET)
        Result(aPlain, aJson);
}

void Console::Result(std::string_view aPlain, const JsonLine& aJson) { WriteLine(m_Output == JSON ? aJson.GetText() : aPlain); }

// A signal, such as SIGPIPE, needs no words.
void Console::Print(std::string_view aText) {
    if (s_bLost || WriteToStdout(aText))
        return;
    const std::string strReason = SystemError(errno);
    s_bLost = true;
    if (Application::GetPendingSignal() == 0)
        Complain("cannot write to stdout: " + strReason);
    if (s_OnLost)
        s_OnLost();
}

void Console::Detail(std::string_view aText) {
    if (s_Verbosity == DETAILS)
        Complain(aText);
}

void Console::Problem(std::string_view aPlain, const JsonLine& aJson) {
    if (m_Output == JSON) {
        WriteLine(aJson.GetText());
        return;
    }
    EraseProgress();
    Complain(aPlain);
}

void Console::Problem(const Failure& aFailure) { Problem(aFailure.m_strReason, JsonLine::Failed(aFailure)); }

void Console::Problem(const Failure& aFailure, std::string_view aKey, std::string_view aSubject) {
    Problem(aFailure.m_strReason, JsonLine::Failed(aFailure).Add(aKey, aSubject));
}

void Console::Progress(std::string_view aPlain, const JsonLine& aJson) {
    if (m_Output != TERMINAL || s_Verbosity == QUIET) {
        Report(aPlain, aJson);
        return;
    }
    EraseProgress();
    // A longer line would wrap, and only its last row could be erased.
    Print(Paint(DIM, FitFields(Printable(aPlain), GetColumns()), STDOUT_FILENO));
    m_bProgressStands = true;
}

void Console::Complain(std::string_view aText) {
    const std::string strBegin = Paint(aText.starts_with("warning:") ? YELLOW : RED, "talvo:", STDERR_FILENO);
    std::fprintf(stderr, "%s %s\n", strBegin.c_str(), Printable(aText).c_str());
}

void Console::WriteLine(std::string_view aText) {
    EraseProgress();
    Print(Printable(aText) + "\n");
}

void Console::EraseProgress() {
    if (!m_bProgressStands)
        return;
    m_bProgressStands = false;
    Print("\r\x1b[K");
}

}  // namespace tool
