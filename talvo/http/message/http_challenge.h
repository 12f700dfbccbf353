// The authentication schemes that a server offers (RFC 9110, section 11).
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

struct CHttpChallenge {
    // The parameter's value; null: there is none. aName in lower case.
    const CCmString* Find(std::string_view aName) const;

    CCmString m_strScheme;  // in lower case
    CCmString m_strToken;   // the scheme's own data in place of parameters, such as a message of NTLM; "": none
    // Names in lower case. A quoted value has no quotes and is otherwise unchanged, backslashes included.
    std::vector<std::pair<CCmString, CCmString>> m_Parameters;
};

// The challenges of a header value, in order; line feeds separate several lines. Malformed parts are skipped up to the next
// comma.
TALVO_API std::vector<CHttpChallenge> ParseHttpChallenges(std::string_view aValue);

}  // namespace talvo
