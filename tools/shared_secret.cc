#include "tools/shared_secret.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/random.h>

#include <array>

#include "tools/frame.h"

namespace tool {

std::string SharedSecret::Prove(ERole aRole, std::string_view aSenderChallenge, std::string_view aReceiverChallenge) const {
    const std::string strText = std::string(aRole == SENDER ? "talvo sender 2" : "talvo receiver 2")
                                    .append(aSenderChallenge)
                                    .append(aReceiverChallenge);
    std::array<unsigned char, EVP_MAX_MD_SIZE> proof{};
    unsigned int uLength = 0;
    if (!HMAC(EVP_sha256(), m_strSecret.data(), static_cast<int>(m_strSecret.size()),
              reinterpret_cast<const unsigned char*>(strText.data()), strText.size(), proof.data(), &uLength))
        return "";
    return std::string(proof.begin(), proof.begin() + uLength);
}

bool SharedSecret::Check(ERole aRole, std::string_view aSenderChallenge, std::string_view aReceiverChallenge,
                         std::string_view aProof) const {
    const std::string strProof = IsSet() ? Prove(aRole, aSenderChallenge, aReceiverChallenge) : "";
    return !strProof.empty() && strProof.size() == aProof.size() &&
           CRYPTO_memcmp(strProof.data(), aProof.data(), aProof.size()) == 0;
}

std::string SharedSecret::MakeChallenge() {
    std::string strChallenge(CHALLENGE_BYTES, '\0');
    const ssize_t nDone = getrandom(strChallenge.data(), strChallenge.size(), 0);
    return nDone == static_cast<ssize_t>(strChallenge.size()) ? strChallenge : "";
}

}  // namespace tool
