// The program's output: lines for people or JSON for scripts, and one progress line on a terminal.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/json_line.h"

namespace tool {

// Main thread only. Every line is written at once, is whole, and has no control characters. The output is lost when a write to
// stdout fails, which is reported once, or when a signal ends the wait for its reader. Nothing more is written to stdout then.
class Console {
public:
    enum EOutput { TERMINAL, PIPE, JSON };
    enum EVerbosity { QUIET, NORMAL, DETAILS };

    // Of all consoles; NORMAL until the first call.
    static void SetVerbosity(EVerbosity aVerbosity);

    // aCall: called when the output is lost; may be empty.
    static void SetOnLost(std::function<void()> aCall);
    static bool IsLost();

    explicit Console(bool aJson);
    ~Console();  // ends a progress line
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    EOutput GetOutput() const { return m_Output; }

    // An event on stdout, as text or JSON. Not with QUIET.
    void Report(std::string_view aPlain, const JsonLine& aJson);

    // The same for the output that the user asked for, also with QUIET.
    void Result(std::string_view aPlain, const JsonLine& aJson);

    // Text of several lines on stdout, as it is.
    static void Print(std::string_view aText);

    // A step on stderr, for people. With DETAILS only.
    static void Detail(std::string_view aText);

    // A failure: "talvo: ..." on stderr, or the JSON object on stdout, see JsonLine::Failed.
    void Problem(std::string_view aPlain, const JsonLine& aJson);
    // The same for a failure whose reason names its subject, or that has none. aKey: the JSON field of the subject, "peer",
    // "url" or "name".
    void Problem(const Failure& aFailure);
    void Problem(const Failure& aFailure, std::string_view aKey, std::string_view aSubject);

    // On a terminal a line that the next output overwrites; otherwise as Report. Not with QUIET.
    void Progress(std::string_view aPlain, const JsonLine& aJson);

    // An error in the arguments: one line of text on stderr, also with --json.
    static void Complain(std::string_view aText);

private:
    void WriteLine(std::string_view aText);
    void EraseProgress();

    const EOutput m_Output;
    bool m_bProgressStands = false;
};

}  // namespace tool
