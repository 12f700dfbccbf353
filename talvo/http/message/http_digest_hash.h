// The hashes and random texts of Digest authentication.
#pragma once

#include <initializer_list>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

enum class EHttpHash { MD5, SHA256 };

// The hash of the parts, one after the other, in lower-case hexadecimal digits; "": the system's cryptography refuses it. No
// copy of the parts is made.
TALVO_API CCmString HttpHashHex(EHttpHash aHash, std::initializer_list<std::string_view> aParts);

// 32 hexadecimal digits that cannot be guessed; "": the system has no random numbers.
TALVO_API CCmString HttpRandomHex();

}  // namespace talvo
