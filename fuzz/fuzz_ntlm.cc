// The second message of NTLM, from a server. The third message to an accepted one has all its fields inside it.
#include "fuzz/fuzz_input.h"
#include "talvo/http/message/ntlm_message.h"

namespace {

size_t Number(std::string_view aMessage, size_t aAt, size_t aBytes) {
    size_t stNumber = 0;
    while (aBytes-- > 0)
        stNumber = stNumber << 8 | static_cast<unsigned char>(aMessage[aAt + aBytes]);
    return stNumber;
}

void CheckAnswer(std::string_view aAnswer, const talvo::CNtlmChallenge& aChallenge) {
    FUZZ_CHECK(aAnswer.starts_with(std::string_view("NTLMSSP\0\3\0\0\0", 12)));
    const size_t stHead = aChallenge.m_bTimestamp ? 88 : 72;
    for (const size_t stField : {12, 20, 28, 36, 44, 52}) {
        const size_t stLength = Number(aAnswer, stField, 2);
        const size_t stOffset = Number(aAnswer, stField + 4, 4);
        FUZZ_CHECK(stOffset >= stHead && stOffset + stLength <= aAnswer.size());
    }
    FUZZ_CHECK(aChallenge.m_bTimestamp || Number(aAnswer, 20, 2) == 16 + 28 + aChallenge.m_strTargetInfo.size() + 8);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string strMessage(reinterpret_cast<const char*>(aData), aSize);
    talvo::CNtlmChallenge challenge;
    if (!talvo::ReadNtlmChallenge(strMessage, challenge))
        return 0;
    FUZZ_CHECK(aSize <= talvo::LONGEST_NTLM_MESSAGE && challenge.m_strTargetInfo.size() + 4 <= aSize);
    CCmCredentials credentials;
    CCmSecret answer;
    FUZZ_CHECK(credentials.Set("DOMAIN\\user", "password") == CM_OK);
    const std::string strFirst = talvo::MakeNtlmNegotiate();
    FUZZ_CHECK(talvo::MakeNtlmAuthenticate(credentials, strFirst, strMessage, challenge, {}, answer) == CM_OK);
    CheckAnswer(answer.Get(), challenge);
    return 0;
}
