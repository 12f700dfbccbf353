// SHA-256 of data in pieces. Only this class uses the library behind it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace tool {

class Sha256 {
public:
    Sha256();
    ~Sha256();

    void Update(std::string_view aBytes);

    // The 32 bytes of all updates so far. Empty if any step failed (no memory, or the algorithm is disabled on this machine);
    // an empty result equals no hash.
    std::string GetSoFar() const;

    // Forgets all updates.
    void Reset();

private:
    struct Context;
    std::unique_ptr<Context> m_pContext;
};

// "9f86d0...", for people.
std::string ToHex(std::string_view aBytes);

}  // namespace tool
