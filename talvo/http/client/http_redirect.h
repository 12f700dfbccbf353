// The target of a redirect and the request for it (RFC 9110, section 15.4; RFC 3986, section 5).
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/http/message/http_atom.h"

class CCmHttpUrl;

namespace talvo {

constexpr DWORD MAX_HTTP_REDIRECTS = 10;

// TRUE: the status names another target: 301, 302, 303, 307 and 308.
TALVO_API BOOL IsHttpRedirect(long aStatus);

// TRUE: the next request is a GET without a body instead of aMethod: after 303 unless it is a HEAD or GET, after 301 and 302 if
// it is a POST.
TALVO_API BOOL DoesHttpRedirectBecomeGet(long aStatus, const CCmHttpAtom& aMethod);

// The absolute URL of a Location in an answer of aBase (http or https), without its fragment. Characters that a URL must not
// contain are percent-encoded. "": not a valid target; this includes user information and every scheme but http and https.
TALVO_API CCmString ResolveHttpLocation(const CCmHttpUrl& aBase, std::string_view aLocation);

// Compares scheme, host (case-insensitively) and port.
TALVO_API BOOL IsSameHttpOrigin(const CCmHttpUrl& a, const CCmHttpUrl& b);

// aText with blanks, control characters, quotation marks, backslashes and bytes beyond ASCII percent-encoded.
TALVO_API CCmString EncodeForHttpUrl(std::string_view aText);

}  // namespace talvo
