// Runs a scenario with many seeds and keeps the trace of the first that fails.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "talvo/testing/sim_network.h"

// The outcome of one seed.
struct CCmSimRun {
    uint64_t m_ullSeed = 0;               // the seed
    uint64_t m_ullDigest = 0;             // CCmSimNetwork::GetTraceDigest
    std::vector<std::string> m_Failures;  // empty: it succeeded
    std::string m_strTrace;               // empty unless requested
};

// Uses the network and returns; calls CCmSimNetwork::Fail for each violated property. All its objects end with it. Calls with
// the same seed must do the same.
using CCmSimScenario = std::function<void(CCmSimNetwork& aNetwork)>;

// Runs aScenario with aSeed. Remaining objects of the library (see CCmLiveCounter) are a failure as well.
CCmSimRun cm_sim_run(const CCmSimScenario& aScenario, uint64_t aSeed, CmBool aTrace = CM_FALSE);

// Runs aScenario with aCount seeds from aFirst on. TRUE: none has failed. FALSE: aFailed (out) is the first failed run, with
// its trace; cm_sim_run with its seed replays it.
CmBool cm_sim_run_seeds(const CCmSimScenario& aScenario, uint64_t aFirst, uint64_t aCount, CCmSimRun& aFailed);

// The main function of a program that runs aScenario:   PROGRAM [FIRST_SEED [COUNT]]
//
// Without arguments it runs the seeds 1 to 1000. With a seed alone it prints the trace of that run; with a count it runs that
// many seeds. Prints the trace and the failures of the first seed that fails, and returns 1 then, 0 otherwise.
int cm_sim_main(int argc, char** argv, const CCmSimScenario& aScenario);
