// The use of their input by fuzz targets.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/support/blocks.h"

// A rule for every input. A violation is a finding.
#define FUZZ_CHECK(aCondition)                                                            \
    do {                                                                                  \
        if (!(aCondition)) {                                                              \
            std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #aCondition); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

// Cuts bytes into random pieces; the input is the seed. Numbers come from the input's end, so that a corpus file is the bytes
// of the wire with a few more behind them.
class CFuzzCutter {
public:
    explicit CFuzzCutter(FuzzedDataProvider& aInput)
        : m_Random(aInput.ConsumeIntegral<uint16_t>()), m_stLongest(aInput.ConsumeIntegralInRange<size_t>(1, 64)) {}

    // The length of the next piece of aLeft bytes; sometimes 0.
    size_t Next(size_t aLeft) { return std::min(aLeft, m_Random() % (m_stLongest + 1)); }

    // A chain of DUPLICATED blocks.
    CCmChainPtr Cut(const std::string& aBytes) {
        return MakeChain(aBytes, [this] { return Next(std::string::npos); });
    }

private:
    std::minstd_rand m_Random;
    size_t m_stLongest;
};

// The pieces in which bytes arrive: one if there is no cutter.
inline std::vector<std::string> PiecesOf(const std::string& aBytes, CFuzzCutter* aCutter) {
    std::vector<std::string> pieces;
    for (size_t stAt = 0; stAt < aBytes.size(); stAt += pieces.back().size())
        pieces.push_back(aBytes.substr(stAt, aCutter ? aCutter->Next(aBytes.size() - stAt) : aBytes.size()));
    return pieces;
}
