#include "tools/console.h"

#include <unistd.h>

#include <cstdio>

#include "tools/text.h"

namespace tool {

namespace {

Console::EOutput ChooseOutput(bool aJson) {
    if (aJson)
        return Console::JSON;
    return isatty(STDOUT_FILENO) ? Console::TERMINAL : Console::PIPE;
}

}  // namespace

Console::Console(bool aJson) : m_Output(ChooseOutput(aJson)) {}

Console::~Console() { EraseProgress(); }

void Console::Report(std::string_view aPlain, const JsonLine& aJson) { WriteLine(m_Output == JSON ? aJson.GetText() : aPlain); }

void Console::Problem(std::string_view aPlain, const JsonLine& aJson) {
    if (m_Output == JSON) {
        WriteLine(aJson.GetText());
        return;
    }
    EraseProgress();
    Complain(aPlain);
}

void Console::Problem(std::string_view aText) { Problem(aText, JsonLine("error").Add("reason", aText)); }

void Console::Progress(std::string_view aPlain, const JsonLine& aJson) {
    if (m_Output != TERMINAL) {
        Report(aPlain, aJson);
        return;
    }
    EraseProgress();
    std::fputs(Printable(aPlain).c_str(), stdout);
    std::fflush(stdout);
    m_bProgressStands = true;
}

void Console::Complain(std::string_view aText) { std::fprintf(stderr, "talvo: %s\n", Printable(aText).c_str()); }

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
