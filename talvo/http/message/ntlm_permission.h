// Whether NTLM is allowed in this process.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// The last AllowNtlm, or else the key "AllowNtlm" in section "HttpProxy"; FALSE by default. Any thread.
TALVO_API BOOL IsNtlmAllowed();
TALVO_API void AllowNtlm(BOOL aAllow);

}  // namespace talvo
