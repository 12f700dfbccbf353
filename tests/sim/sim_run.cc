#include <cstring>

#include "tests/sim/sim_scenario.h"

// sim_run [reliable] [FIRST_SEED [COUNT]]
int main(int argc, char** argv) {
    const bool bReliable = argc > 1 && std::strcmp(argv[1], "reliable") == 0;
    return bReliable ? cm_sim_main(argc - 1, argv + 1, RunReliableScenario) : cm_sim_main(argc, argv, RunScenario);
}
