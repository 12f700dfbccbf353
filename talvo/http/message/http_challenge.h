// What a server that wants credentials offers (RFC 9110, section 11).
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

struct CHttpChallenge {
    // The parameter's value, null without one. aName in lower case.
    const CCmString* Find(std::string_view aName) const;

    CCmString m_strScheme;  // in lower case
    // Names in lower case; a quoted value without its quotes and otherwise as it came, backslashes included.
    std::vector<std::pair<CCmString, CCmString>> m_Parameters;
};

// The challenges of a header value, in order; several lines are separated by line feeds. What follows none of the rules is
// skipped up to the next comma.
TALVO_API std::vector<CHttpChallenge> ParseHttpChallenges(std::string_view aValue);

}  // namespace talvo
