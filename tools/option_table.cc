#include "tools/option_table.h"

#include <CLI/CLI.hpp>
#include <set>

namespace tool {

namespace {

// "TEXT:{a,b}" has the choices a and b.
std::vector<std::string> ReadChoices(const std::string& aTypeName) {
    const size_t stBegin = aTypeName.find('{');
    const size_t stEnd = aTypeName.find('}');
    if (stBegin == std::string::npos || stEnd == std::string::npos)
        return {};
    return CLI::detail::split(aTypeName.substr(stBegin + 1, stEnd - stBegin - 1), ',');
}

// "; needs --a and --b", "; not with --c or --d", or "" without aOthers.
std::string DescribeOthers(const std::string& aBegin, const std::string& aBetween, const std::set<CLI::Option*>& aOthers) {
    std::set<std::string> names;
    for (const CLI::Option* pOther : aOthers)
        names.insert(pOther->get_positional() ? pOther->get_option_text() : pOther->get_name());
    std::string strText;
    for (const std::string& strName : names)
        strText += (strText.empty() ? aBegin : aBetween) + strName;
    return strText;
}

CommandRow ReadCommand(const CLI::App& aApp) {
    CommandRow row{aApp.get_name(), aApp.get_description(), {}};
    for (const CLI::Option* pOption : aApp.get_options())
        row.m_vecOptions.push_back(ReadOption(*pOption));
    return row;
}

}  // namespace

OptionRow ReadOption(const CLI::Option& aOption) {
    OptionRow row;
    for (const std::string& strName : aOption.get_snames())
        row.m_vecNames.push_back("-" + strName);
    for (const std::string& strName : aOption.get_lnames())
        row.m_vecNames.push_back("--" + strName);
    const bool bFlag = aOption.get_items_expected_max() == 0;
    row.m_strValue = bFlag ? "" : aOption.get_option_text();
    row.m_strHelp = aOption.get_description() + DescribeOthers("; needs ", " and ", aOption.get_needs()) +
                    DescribeOthers("; not with ", " or ", aOption.get_excludes());
    row.m_vecChoices = bFlag ? std::vector<std::string>() : ReadChoices(aOption.get_type_name());
    row.m_bRequired = aOption.get_required();
    return row;
}

OptionTable ReadOptions(const CLI::App& aApp) {
    OptionTable table;
    table.m_Program = ReadCommand(aApp);
    for (const CLI::App* pCommand : aApp.get_subcommands([](const CLI::App*) { return true; }))
        table.m_vecCommands.push_back(ReadCommand(*pCommand));
    table.m_strNotes = aApp.get_footer();
    return table;
}

std::string GetHelpText(const CLI::App& aApp, const std::string& aCommand) {
    for (const CLI::App* pCommand : aApp.get_subcommands([&](const CLI::App* p) { return p->get_name() == aCommand; }))
        return pCommand->help(aApp.get_name());
    return aApp.get_formatter()->make_help(&aApp, aApp.get_name(), CLI::AppFormatMode::Normal);
}

}  // namespace tool
