// A hash for tables whose keys come from peers.
#pragma once

#include <bit>
#include <cstdint>
#include <span>

#include "talvo/base/random_seed.h"

namespace talvo {

// SipHash-1-3 (J.-P. Aumasson, D. J. Bernstein, "SipHash: a fast short-input PRF", 2012) of whole words. A peer does not have
// the secret, so it cannot choose keys that collide.
class CKeyedHash {
public:
    CKeyedHash() : CKeyedHash(random_seed(), random_seed()) {}
    CKeyedHash(uint64_t aSecret0, uint64_t aSecret1) : m_ullSecret0(aSecret0), m_ullSecret1(aSecret1) {}

    uint64_t operator()(std::span<const uint64_t> aWords) const {
        CState state{m_ullSecret0 ^ 0x736f6d6570736575, m_ullSecret1 ^ 0x646f72616e646f6d, m_ullSecret0 ^ 0x6c7967656e657261,
                     m_ullSecret1 ^ 0x7465646279746573};
        for (const uint64_t ullWord : aWords)
            state.Take(ullWord);
        state.Take(uint64_t{aWords.size_bytes()} << 56);
        state.m_v2 ^= 0xff;
        for (int i = 0; i < 3; ++i)
            state.Round();
        return state.m_v0 ^ state.m_v1 ^ state.m_v2 ^ state.m_v3;
    }

private:
    struct CState {
        void Take(uint64_t aWord) {
            m_v3 ^= aWord;
            Round();
            m_v0 ^= aWord;
        }
        void Round() {
            m_v0 += m_v1;
            m_v2 += m_v3;
            m_v1 = std::rotl(m_v1, 13) ^ m_v0;
            m_v3 = std::rotl(m_v3, 16) ^ m_v2;
            m_v0 = std::rotl(m_v0, 32) + m_v3;
            m_v2 += m_v1;
            m_v1 = std::rotl(m_v1, 17) ^ m_v2;
            m_v3 = std::rotl(m_v3, 21) ^ m_v0;
            m_v2 = std::rotl(m_v2, 32);
        }
        uint64_t m_v0, m_v1, m_v2, m_v3;
    };

    uint64_t m_ullSecret0;
    uint64_t m_ullSecret1;
};

}  // namespace talvo
