// Where a redirect leads and what is asked for there (RFC 9110, section 15.4; RFC 3986, section 5).
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/http/message/http_atom.h"

class CCmHttpUrl;

namespace talvo {

constexpr DWORD MAX_HTTP_REDIRECTS = 10;

// Whether the status names another place to ask at: 301, 302, 303, 307 and 308.
TALVO_API BOOL IsHttpRedirect(long aStatus);

// Whether the next request is a GET without a body instead of aMethod: after 303 unless it is a HEAD or GET, after 301 and 302
// if it is a POST.
TALVO_API BOOL DoesHttpRedirectBecomeGet(long aStatus, const CCmHttpAtom& aMethod);

// The absolute URL that a Location means on an answer of aBase (http or https), without its fragment; what may not stand in a
// URL is percent-encoded. "": none that could be asked for, among them one with user information and every scheme but http and
// https.
TALVO_API CCmString ResolveHttpLocation(const CCmHttpUrl& aBase, std::string_view aLocation);

// Scheme, host (in any case of letters) and port.
TALVO_API BOOL IsSameHttpOrigin(const CCmHttpUrl& a, const CCmHttpUrl& b);

// aText with blanks, control characters, quotation marks, backslashes and bytes beyond ASCII percent-encoded.
TALVO_API CCmString EncodeForHttpUrl(std::string_view aText);

}  // namespace talvo
