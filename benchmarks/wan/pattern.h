// The bytes of a benchmark's stream: each depends on its position, so that order and completeness can be checked.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

// One end of a stream.
class CPattern {
public:
    static constexpr size_t LONGEST = 64 * 1024;

    CPattern() {
        for (size_t i = 0; i < m_Bytes.size(); ++i)
            m_Bytes[i] = static_cast<char>(i % PERIOD);
    }

    // The stream's next bytes to send, at most LONGEST.
    const char* Next() const { return m_Bytes.data() + m_ullDone % PERIOD; }
    void Advance(size_t aLength) { m_ullDone += aLength; }
    uint64_t GetDone() const { return m_ullDone; }

    // Checks the next received bytes. Wrong bytes end the program.
    void Check(const char* aBytes, size_t aLength) {
        while (aLength > 0) {
            const size_t stPart = std::min(aLength, LONGEST);
            if (std::memcmp(aBytes, Next(), stPart) != 0) {
                std::fprintf(stderr, "the stream is not what was sent, behind byte %llu\n",
                             static_cast<unsigned long long>(m_ullDone));
                std::_Exit(1);
            }
            Advance(stPart);
            aBytes += stPart;
            aLength -= stPart;
        }
    }

private:
    static constexpr size_t PERIOD = 251;  // a prime, so that pieces of usual sizes in a wrong order are detected

    std::array<char, LONGEST + PERIOD> m_Bytes{};
    uint64_t m_ullDone = 0;
};

}  // namespace bench
