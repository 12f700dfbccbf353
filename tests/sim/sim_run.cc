#include <string>

#include "tests/sim/sim_scenario.h"

// sim_run [reliable|forward] [FIRST_SEED [COUNT]]
int main(int argc, char** argv) {
    const std::string strScenario = argc > 1 ? argv[1] : "";
    if (strScenario == "reliable")
        return cm_sim_main(argc - 1, argv + 1, RunReliableScenario);
    return strScenario == "forward" ? cm_sim_main(argc - 1, argv + 1, RunForwardScenario)
                                    : cm_sim_main(argc, argv, RunScenario);
}
