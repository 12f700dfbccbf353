// Thin functions over the parser of the command line, so that its templates are compiled once.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace CLI {
class App;
}

namespace tool {

// aName: "--port", or "-o,--out"; without dashes: an argument by its place. aPlaceholder: the value in the help.
void AddFlag(CLI::App& aApp, const char* aName, bool& aVariable, const std::string& aHelp);
// Counts: -v -v is -vv.
void AddCount(CLI::App& aApp, const char* aName, int& aVariable, const std::string& aHelp);
void AddText(CLI::App& aApp, const char* aName, std::string& aVariable, const char* aPlaceholder, const std::string& aHelp);
void AddList(CLI::App& aApp, const char* aName, std::vector<std::string>& aVariable, const char* aPlaceholder,
             const std::string& aHelp);
// One of aChoices.
void AddChoice(CLI::App& aApp, const char* aName, std::string& aVariable, const std::vector<std::string>& aChoices,
               const char* aPlaceholder, const std::string& aHelp);
// From aMin to aMax.
void AddNumber(CLI::App& aApp, const char* aName, int& aVariable, int aMin, int aMax, const std::string& aHelp);
void AddNumber(CLI::App& aApp, const char* aName, DWORD& aVariable, int aMin, int aMax, const std::string& aHelp);

// Of options that were added.
void Require(CLI::App& aApp, const char* aName);
void Need(CLI::App& aApp, const char* aName, const char* aOther);
void Exclude(CLI::App& aApp, const char* aName, const char* aOther);

}  // namespace tool
