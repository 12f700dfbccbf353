#include "tools/pac/match.h"

namespace pac {

bool IsPlainShell(std::string_view aPattern) { return aPattern.find_first_of("[](){}+|^$\\") == aPattern.npos; }

// After a mismatch only the last "*" takes one more character: an earlier one could match nothing that it does not.
bool MatchShell(std::string_view aText, std::string_view aPattern) {
    size_t text = 0, pattern = 0;
    size_t star = aPattern.npos, afterStar = 0;
    while (text < aText.size()) {
        if (pattern < aPattern.size() && aPattern[pattern] == '*') {
            star = pattern++;
            afterStar = text;
        } else if (pattern < aPattern.size() && (aPattern[pattern] == '?' || aPattern[pattern] == aText[text])) {
            ++pattern;
            ++text;
        } else if (star != aPattern.npos) {
            pattern = star + 1;
            text = ++afterStar;
        } else {
            return false;
        }
    }
    return aPattern.find_first_not_of('*', pattern) == aPattern.npos;
}

}  // namespace pac
