// The hashes of NTLM, version 2 ([MS-NLMP], section 3.3.2).
#pragma once

#include <array>
#include <initializer_list>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/secret.h"

namespace talvo {

// A hash, overwritten at its end: some are as good as the password.
struct CNtlmKey : std::array<unsigned char, 16> {
    TALVO_API ~CNtlmKey();

    std::string_view View() const { return {reinterpret_cast<const char*>(data()), size()}; }
};

// aText (out): UTF-16LE of a UTF-8 text. CM_ERROR_INVALID_ARG: not UTF-8, or too long. CM_ERROR_OUT_OF_MEMORY.
TALVO_API CmResult ToUtf16(std::string_view aUtf8, CCmSecret& aText);
// In place, UTF-16LE: the letters of ASCII, Latin-1, Greek and Cyrillic; others stay.
TALVO_API void UpperUtf16(char* aText, size_t aLength);

// FALSE: the system's cryptography refuses it.
TALVO_API BOOL HmacMd5(const CNtlmKey& aKey, std::initializer_list<std::string_view> aParts, CNtlmKey& aHash);

// aKey (out): the key of the responses for this user, secret like the password. All texts in UTF-16LE. CM_ERROR_FAILURE: the
// system's cryptography refuses it. CM_ERROR_OUT_OF_MEMORY.
TALVO_API CmResult MakeNtlmKey(std::string_view aUser, std::string_view aDomain, std::string_view aPassword, CNtlmKey& aKey);

}  // namespace talvo
