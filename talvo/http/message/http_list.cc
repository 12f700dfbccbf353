#include "talvo/http/message/http_list.h"

#include <algorithm>

#include "talvo/http/message/http_text.h"

namespace {

// The end of the element at the front. A backslash in quotes escapes the next character.
size_t EndOfElement(std::string_view aList) {
    BOOL bQuoted = FALSE;
    for (size_t i = 0; i < aList.size(); ++i) {
        if (aList[i] == '"')
            bQuoted = !bQuoted;
        else if (bQuoted && aList[i] == '\\')
            ++i;
        else if (!bQuoted && aList[i] == ',')
            return i;
    }
    return aList.size();
}

}  // namespace

BOOL cm_next_list_element(std::string_view& aList, std::string_view& aElement) {
    while (!aList.empty()) {
        const size_t stEnd = EndOfElement(aList);
        aElement = talvo::trim_blanks(aList.substr(0, stEnd));
        aList.remove_prefix(std::min(stEnd + 1, aList.size()));
        if (!aElement.empty())
            return TRUE;
    }
    return FALSE;
}
