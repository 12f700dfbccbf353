// MD4, which only NTLM uses.
#pragma once

#include <string_view>

#include "talvo/http/message/ntlm_hash.h"

namespace talvo {

// By the library's own function, which needs no legacy provider in the process. FALSE: the system refuses it.
BOOL Md4(std::string_view aText, CNtlmKey& aHash);

}  // namespace talvo
