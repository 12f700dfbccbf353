#include "tools/sha256.h"

#include <openssl/evp.h>

#include <array>

namespace tool {

struct Sha256::Context {
    EVP_MD_CTX* m_pMd = EVP_MD_CTX_new();
    bool m_bGood = m_pMd && EVP_DigestInit_ex(m_pMd, EVP_sha256(), nullptr) == 1;

    Context() = default;
    ~Context() { EVP_MD_CTX_free(m_pMd); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
};

Sha256::Sha256() : m_pContext(std::make_unique<Context>()) {}

Sha256::~Sha256() = default;

void Sha256::Update(std::string_view aBytes) {
    if (m_pContext->m_bGood)
        m_pContext->m_bGood = EVP_DigestUpdate(m_pContext->m_pMd, aBytes.data(), aBytes.size()) == 1;
}

void Sha256::Reset() { m_pContext = std::make_unique<Context>(); }

std::string Sha256::GetSoFar() const {
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned int length = 0;
    Context copy;
    if (!m_pContext->m_bGood || !copy.m_bGood || EVP_MD_CTX_copy_ex(copy.m_pMd, m_pContext->m_pMd) != 1 ||
        EVP_DigestFinal_ex(copy.m_pMd, hash.data(), &length) != 1)
        return "";
    return std::string(hash.begin(), hash.begin() + length);
}

std::string ToHex(std::string_view aBytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string strHex;
    for (const char c : aBytes) {
        const auto byte = static_cast<unsigned char>(c);
        strHex += DIGITS[byte >> 4];
        strHex += DIGITS[byte & 15];
    }
    return strHex;
}

}  // namespace tool
