// sim_run [FIRST_SEED [COUNT]]: runs that many seeds from that one on (1, 1000); of the first that breaks a promise everything
// is printed, and the status is 1.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "tests/sim/sim_scenario.h"

int main(int argc, char** argv) {
    const uint64_t ullFirst = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    const uint64_t ullCount = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000;
    CCmSimRun failed;
    if (cm_sim_run_seeds(RunScenario, ullFirst, ullCount, failed)) {
        std::printf("%" PRIu64 " seeds, no failure\n", ullCount);
        return 0;
    }
    std::printf("%sseed %" PRIu64 " failed:\n", failed.m_strTrace.c_str(), failed.m_ullSeed);
    for (const std::string& strFailure : failed.m_Failures)
        std::printf("  %s\n", strFailure.c_str());
    return 1;
}
