#include "talvo/http/message/http_digest_hash.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace talvo {

namespace {

CCmString ToHex(const unsigned char* aBytes, unsigned aCount) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    CCmString strHex;
    strHex.reserve(aCount * 2);  // no copy is left in freed memory
    for (unsigned i = 0; i < aCount; ++i) {
        strHex += DIGITS[aBytes[i] >> 4];
        strHex += DIGITS[aBytes[i] & 15];
    }
    return strHex;
}

}  // namespace

CCmString HttpHashHex(EHttpHash aHash, std::initializer_list<std::string_view> aParts) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> pContext(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    const EVP_MD* pHash = aHash == EHttpHash::MD5 ? EVP_md5() : EVP_sha256();
    if (!pContext || EVP_DigestInit_ex(pContext.get(), pHash, nullptr) != 1)
        return {};
    for (const std::string_view part : aParts) {
        if (EVP_DigestUpdate(pContext.get(), part.data(), part.size()) != 1)
            return {};
    }
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned dwCount = 0;
    return EVP_DigestFinal_ex(pContext.get(), bytes, &dwCount) == 1 ? ToHex(bytes, dwCount) : CCmString();
}

CCmString HttpRandomHex() {
    unsigned char bytes[16];
    return RAND_bytes(bytes, sizeof bytes) == 1 ? ToHex(bytes, sizeof bytes) : CCmString();
}

}  // namespace talvo
