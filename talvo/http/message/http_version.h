// The HTTP versions of heads.
#pragma once

// "1.1 or later" is a comparison with 11. A head has CM_HTTP_VERSION_UNKNOWN after Clear.
enum CCmHttpVersion { CM_HTTP_VERSION_UNKNOWN = 0, CM_HTTP_VERSION_10 = 10, CM_HTTP_VERSION_11 = 11 };

namespace talvo {

constexpr const char* HTTP_ALPN = "http/1.1";  // the one protocol of https connections (RFC 7301, 6)

}  // namespace talvo
