#include "tools/options.h"

#include <CLI/CLI.hpp>

namespace tool {

namespace {

template <class Number>
void AddRange(CLI::App& aApp, const char* aName, Number& aVariable, int aMin, int aMax, const std::string& aHelp) {
    aApp.add_option(aName, aVariable, aHelp)->check(CLI::Range(aMin, aMax))->option_text("N");
}

}  // namespace

void AddFlag(CLI::App& aApp, const char* aName, bool& aVariable, const std::string& aHelp) {
    aApp.add_flag(aName, aVariable, aHelp);
}

void AddCount(CLI::App& aApp, const char* aName, int& aVariable, const std::string& aHelp) {
    aApp.add_flag(aName, aVariable, aHelp);
}

void AddText(CLI::App& aApp, const char* aName, std::string& aVariable, const char* aPlaceholder, const std::string& aHelp) {
    aApp.add_option(aName, aVariable, aHelp)->option_text(aPlaceholder);
}

void AddList(CLI::App& aApp, const char* aName, std::vector<std::string>& aVariable, const char* aPlaceholder,
             const std::string& aHelp) {
    aApp.add_option(aName, aVariable, aHelp)->option_text(aPlaceholder);
}

void AddChoice(CLI::App& aApp, const char* aName, std::string& aVariable, const std::vector<std::string>& aChoices,
               const char* aPlaceholder, const std::string& aHelp) {
    aApp.add_option(aName, aVariable, aHelp)->check(CLI::IsMember(aChoices))->option_text(aPlaceholder);
}

void AddNumber(CLI::App& aApp, const char* aName, int& aVariable, int aMin, int aMax, const std::string& aHelp) {
    AddRange(aApp, aName, aVariable, aMin, aMax, aHelp);
}

void AddNumber(CLI::App& aApp, const char* aName, DWORD& aVariable, int aMin, int aMax, const std::string& aHelp) {
    AddRange(aApp, aName, aVariable, aMin, aMax, aHelp);
}

void Require(CLI::App& aApp, const char* aName) { aApp.get_option(aName)->required(); }

void Need(CLI::App& aApp, const char* aName, const char* aOther) { aApp.get_option(aName)->needs(aApp.get_option(aOther)); }

void Exclude(CLI::App& aApp, const char* aName, const char* aOther) {
    aApp.get_option(aName)->excludes(aApp.get_option(aOther));
}

}  // namespace tool
