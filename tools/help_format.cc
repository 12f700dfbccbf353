#include "tools/help_format.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "tools/option_table.h"

namespace tool {

namespace {

constexpr size_t INDENT = 26;
constexpr size_t WIDTH = 100;

// aLeft and behind it the words of aText, whose lines begin at the column INDENT.
std::string MakeEntry(const std::string& aLeft, const std::string& aText) {
    std::string strEntry;
    std::string strLine = "  " + aLeft;
    std::istringstream words(aText);
    for (std::string strWord; words >> strWord;) {
        const bool bFits = strLine.size() < INDENT || strLine.size() + 1 + strWord.size() <= WIDTH;
        if (!bFits || (strEntry.empty() && strLine == "  " + aLeft && strLine.size() >= INDENT)) {
            strEntry += strLine + "\n";
            strLine.clear();
        }
        if (strLine.size() < INDENT)
            strLine.resize(INDENT, ' ');
        else
            strLine += " ";
        strLine += strWord;
    }
    return strEntry + strLine + "\n";
}

class HelpFormat : public CLI::Formatter {
public:
    std::string make_option(const CLI::Option* aOption, bool aIsPositional) const override {
        const OptionRow row = ReadOption(*aOption);
        std::string strLeft = CLI::detail::join(row.m_vecNames, ", ");
        if (!row.m_strValue.empty())
            strLeft += (aIsPositional ? "" : " ") + row.m_strValue;
        else if (aOption->get_name(false, true).find('{') != std::string::npos)
            strLeft += "[=VALUE]";
        return MakeEntry(strLeft, row.m_strHelp);
    }
    std::string make_subcommand(const CLI::App* aCommand) const override {
        return MakeEntry(aCommand->get_name(), aCommand->get_description());
    }
    std::string make_option_usage(const CLI::Option* aOption) const override {
        const std::string& strText = aOption->get_option_text();
        return aOption->get_required() ? strText : "[" + strText + "]";
    }
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> MakeHelpFormat() { return std::make_shared<HelpFormat>(); }

}  // namespace tool
