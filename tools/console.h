// What the program says: lines for people or JSON for scripts, and the one progress line of a terminal.
#pragma once

#include <string>
#include <string_view>

#include "tools/json_line.h"

namespace tool {

// All from the main thread. Every line leaves at once, whole, and without control characters.
class Console {
public:
    enum EOutput { TERMINAL, PIPE, JSON };

    explicit Console(bool aJson);
    ~Console();  // ends a progress line that still stands
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    EOutput GetOutput() const { return m_Output; }

    // News on stdout, in the form that was asked for.
    void Report(std::string_view aPlain, const JsonLine& aJson);

    // A failure: "talvo: ..." on stderr, or the object on stdout.
    void Problem(std::string_view aPlain, const JsonLine& aJson);
    // The same with the event "error" and the text alone.
    void Problem(std::string_view aText);

    // On a terminal a line that the next output overwrites; elsewhere as Report.
    void Progress(std::string_view aPlain, const JsonLine& aJson);

    // One line on stderr in any form of output: what is wrong with the arguments.
    static void Complain(std::string_view aText);

private:
    void WriteLine(std::string_view aText);
    void EraseProgress();

    const EOutput m_Output;
    bool m_bProgressStands = false;
};

}  // namespace tool
