// The proof that both ends of a transfer have the same secret. Only this file and tools/sha256.cc use the library behind it.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// HMAC-SHA-256 over both challenges and the role, so that neither end can send the other's proof back. The secret itself is
// never sent.
class SharedSecret {
public:
    enum ERole { SENDER, RECEIVER };

    // aSecret: "" is no secret, and neither proves nor checks.
    explicit SharedSecret(std::string aSecret) : m_strSecret(std::move(aSecret)) {}

    bool IsSet() const { return !m_strSecret.empty(); }
    // The 32 bytes that aRole sends. "": the algorithm is not available.
    std::string Prove(ERole aRole, std::string_view aSenderChallenge, std::string_view aReceiverChallenge) const;
    // In constant time. false: another secret, or none.
    bool Check(ERole aRole, std::string_view aSenderChallenge, std::string_view aReceiverChallenge,
               std::string_view aProof) const;

    // 32 random bytes. "": the system has none.
    static std::string MakeChallenge();

private:
    const std::string m_strSecret;
};

}  // namespace tool
