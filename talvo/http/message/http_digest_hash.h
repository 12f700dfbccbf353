// The hashes and random texts of Digest authentication.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

enum class EHttpHash { MD5, SHA256 };

// The hash of aText in lower-case hexadecimal digits; "": the system's cryptography refuses it.
TALVO_API CCmString HttpHashHex(EHttpHash aHash, std::string_view aText);

// 32 hexadecimal digits that cannot be guessed; "": the system has no random numbers.
TALVO_API CCmString HttpRandomHex();

}  // namespace talvo
