#include "tests/sim/sim_scenario.h"

int main(int argc, char** argv) { return cm_sim_main(argc, argv, RunScenario); }
