// Status codes and their usual texts.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

// Of the answers that the library makes, and of the results of its checks.
constexpr int HTTP_BAD_REQUEST = 400;
constexpr int HTTP_REQUEST_TIMEOUT = 408;
constexpr int HTTP_CONTENT_TOO_LARGE = 413;
constexpr int HTTP_URI_TOO_LONG = 414;
constexpr int HTTP_EXPECTATION_FAILED = 417;
constexpr int HTTP_HEADERS_TOO_LARGE = 431;
constexpr int HTTP_SERVER_ERROR = 500;
constexpr int HTTP_NOT_IMPLEMENTED = 501;
constexpr int HTTP_BAD_RESPONSE = 502;
constexpr int HTTP_SERVICE_UNAVAILABLE = 503;
constexpr int HTTP_VERSION_NOT_SUPPORTED = 505;

// The text behind aStatus on a status line ("Not Found"), or "Unknown" for a number without a name. The text is static.
const char* HttpStatusText(long aStatus);

}  // namespace talvo
