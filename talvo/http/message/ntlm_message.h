// The three messages of NTLM, version 2 ([MS-NLMP], section 2.2.1).
#pragma once

#include <array>
#include <string_view>

#include "talvo/base/credentials.h"
#include "talvo/base/export.h"

namespace talvo {

// The second message, which comes from the server.
struct CNtlmChallenge {
    DWORD m_dwFlags = 0;
    std::array<char, 8> m_Challenge{};
    CCmString m_strTargetInfo;  // its pairs, without the one that ends the list
    BOOL m_bTimestamp = FALSE;  // the target info has one, and so asks for a MIC
    std::array<char, 8> m_Timestamp{};
    DWORD m_dwTargetFlags = 0;
};

constexpr size_t LONGEST_NTLM_MESSAGE = 4096;

// The first message: no name of the user, the domain or the machine.
TALVO_API CCmString MakeNtlmNegotiate();

// aChallenge (out). FALSE: longer than LONGEST_NTLM_MESSAGE, another message, not in Unicode, a field that reaches outside, an
// odd length, no target info, or a list in it that does not end. May throw std::bad_alloc, as the functions around it.
TALVO_API BOOL ReadNtlmChallenge(std::string_view aMessage, CNtlmChallenge& aChallenge);

// The values that differ each time.
struct CNtlmChance {
    std::array<char, 8> m_ClientChallenge{};
    std::array<char, 8> m_Time{};  // 100 ns since 1601, little-endian; the server's timestamp replaces it

    // FALSE: the system has no random numbers.
    TALVO_API BOOL Roll();
};

// The third message. aUser of the credentials: "DOMAIN\user", or a user alone, all in UTF-8. aNegotiate and aMessage are the
// first two messages as they went over the wire, aChallenge is read from the second. There is no channel binding.
// aAuthenticate (out). CM_ERROR_INVALID_ARG: a text is not UTF-8 or too long. CM_ERROR_FAILURE: the system's cryptography
// refuses MD4 or MD5. CM_ERROR_OUT_OF_MEMORY.
TALVO_API CmResult MakeNtlmAuthenticate(const CCmCredentials& aCredentials, std::string_view aNegotiate,
                                        std::string_view aMessage, const CNtlmChallenge& aChallenge, const CNtlmChance& aChance,
                                        CCmSecret& aAuthenticate);

}  // namespace talvo
