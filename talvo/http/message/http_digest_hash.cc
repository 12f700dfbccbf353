#include "talvo/http/message/http_digest_hash.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

namespace talvo {

namespace {

CCmString ToHex(const unsigned char* aBytes, unsigned aCount) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    CCmString strHex;
    for (unsigned i = 0; i < aCount; ++i) {
        strHex += DIGITS[aBytes[i] >> 4];
        strHex += DIGITS[aBytes[i] & 15];
    }
    return strHex;
}

}  // namespace

CCmString HttpHashHex(EHttpHash aHash, std::string_view aText) {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned dwCount = 0;
    const EVP_MD* pHash = aHash == EHttpHash::MD5 ? EVP_md5() : EVP_sha256();
    return EVP_Digest(aText.data(), aText.size(), bytes, &dwCount, pHash, nullptr) == 1 ? ToHex(bytes, dwCount) : CCmString();
}

CCmString HttpRandomHex() {
    unsigned char bytes[16];
    return RAND_bytes(bytes, sizeof bytes) == 1 ? ToHex(bytes, sizeof bytes) : CCmString();
}

}  // namespace talvo
