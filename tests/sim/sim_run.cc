// sim_run [FIRST_SEED [COUNT]]: runs that many seeds from that one on (1, 1000); of the first that breaks a promise everything
// is printed, and the status is 1.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "tests/sim/sim_scenario.h"

int main(int argc, char** argv) {
    const uint64_t ullFirst = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    const uint64_t ullCount = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000;
    uint64_t ullMessages = 0;
    for (uint64_t ullSeed = ullFirst; ullSeed < ullFirst + ullCount; ++ullSeed) {
        const CSimResult result = RunSeed(ullSeed);
        ullMessages += result.m_dwMessages;
        if (result.m_Failures.empty())
            continue;
        RunSeed(ullSeed, TRUE);
        std::printf("seed %" PRIu64 " (%s) failed:\n", ullSeed, result.m_szKind);
        for (const std::string& strFailure : result.m_Failures)
            std::printf("  %s\n", strFailure.c_str());
        return 1;
    }
    std::printf("%" PRIu64 " seeds, %" PRIu64 " messages, no failure\n", ullCount, ullMessages);
    return 0;
}
