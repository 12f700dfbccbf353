#include "talvo/proxy/discovery/bypass_rules.h"

#include <fstream>
#include <regex>

#include "tests/support/test.h"

using namespace talvo;

namespace {

// The URLs of a column that the rules judge differently from aExpected.
std::string WrongOf(const CBypassRules& aRules, const std::string& aColumn, BOOL aExpected) {
    static const std::regex s_Url("`([^`]+)`");
    std::string strWrong;
    for (std::sregex_iterator it(aColumn.begin(), aColumn.end(), s_Url), end; it != end; ++it) {
        CProxyOrigin origin;
        EXPECT_EQ(CM_OK, CProxyOrigin::Parse((*it)[1].str(), origin)) << it->str();
        if (aRules.Matches(origin) != aExpected)
            strWrong += it->str();
    }
    return strWrong;
}

}  // namespace

TEST(BypassRulesTest, TheTableOfTheManualIsTrue) {
    std::ifstream page(TALVO_DISCOVERY_PAGE);
    const std::regex row("\\| `([^`]+)` \\| (list|pattern) \\|([^|]+)\\|([^|]*)\\|");
    std::smatch cells;
    int nRows = 0;
    for (std::string strLine; std::getline(page, strLine);) {
        if (!std::regex_match(strLine, cells, row))
            continue;
        ++nRows;
        CBypassRules rules;
        rules.Add(cells[1].str(), cells[2] == "list" ? EBypassDialect::LIST : EBypassDialect::PATTERN);
        EXPECT_EQ("", WrongOf(rules, cells[3], TRUE)) << strLine;
        EXPECT_EQ("", WrongOf(rules, cells[4], FALSE)) << strLine;
    }
    EXPECT_EQ(20, nRows);
}
