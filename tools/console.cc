#include "tools/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "tools/colour.h"
#include "tools/text.h"

namespace tool {

namespace {

Console::EVerbosity s_Verbosity = Console::NORMAL;

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

}  // namespace

Console::Console(bool aJson) : m_Output(ChooseOutput(aJson)) {}

Console::~Console() { EraseProgress(); }

void Console::SetVerbosity(EVerbosity aVerbosity) { s_Verbosity = aVerbosity; }

void Console::Report(std::string_view aPlain, const JsonLine& aJson) {
    if (s_Verbosity != QUIET)
        Result(aPlain, aJson);
}

void Console::Result(std::string_view aPlain, const JsonLine& aJson) { WriteLine(m_Output == JSON ? aJson.GetText() : aPlain); }

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

void Console::Progress(std::string_view aPlain, const JsonLine& aJson) {
    if (m_Output != TERMINAL || s_Verbosity == QUIET) {
        Report(aPlain, aJson);
        return;
    }
    EraseProgress();
    // A longer line would wrap, and only its last row could be erased.
    std::fputs(Paint(DIM, Truncated(Printable(aPlain), GetColumns()), STDOUT_FILENO).c_str(), stdout);
    std::fflush(stdout);
    m_bProgressStands = true;
}

void Console::Complain(std::string_view aText) {
    const std::string strBegin = Paint(aText.starts_with("warning:") ? YELLOW : RED, "talvo:", STDERR_FILENO);
    std::fprintf(stderr, "%s %s\n", strBegin.c_str(), Printable(aText).c_str());
}

void Console::WriteLine(std::string_view aText) {
    EraseProgress();
    std::fprintf(stdout, "%s\n", Printable(aText).c_str());
    std::fflush(stdout);
}

void Console::EraseProgress() {
    if (!m_bProgressStands)
        return;
    std::fputs("\r\x1b[K", stdout);
    std::fflush(stdout);
    m_bProgressStands = false;
}

}  // namespace tool
