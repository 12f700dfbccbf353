// The choice of a content coding (RFC 9110, 12.5.3).
#pragma once

#include <string_view>

namespace tool {

// TRUE: the value of a header "Accept-Encoding" permits gzip and prefers it to the plain content, or has no preference.
bool AcceptsGzip(std::string_view aAcceptEncoding);

}  // namespace tool
