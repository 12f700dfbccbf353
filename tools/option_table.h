// The commands and options of the program as plain data, from which its manual pages and completions are made.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tool {

struct OptionRow {
    std::vector<std::string> m_vecNames;    // "-o", "--out"; empty: an argument by its place
    std::string m_strValue;                 // the placeholder of its value; "": a flag
    std::string m_strHelp;                  // a text without a full stop at its end, with the options that it needs or excludes
    std::vector<std::string> m_vecChoices;  // of the value; empty: any
    bool m_bRequired = false;
};

struct CommandRow {
    std::string m_strName;
    std::string m_strSummary;
    std::vector<OptionRow> m_vecOptions;
};

struct OptionTable {
    CommandRow m_Program;  // its own options
    std::vector<CommandRow> m_vecCommands;
    std::string m_strNotes;  // blocks of text with an empty line between two; lines with a blank at the front are verbatim
};

OptionRow ReadOption(const CLI::Option& aOption);
OptionTable ReadOptions(const CLI::App& aApp);

// The text of --help: of the command aCommand, or of the program if it is "".
std::string GetHelpText(const CLI::App& aApp, const std::string& aCommand);

}  // namespace tool
