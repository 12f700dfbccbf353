#include "talvo/testing/sim_seeds.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "talvo/base/live_counter.h"

CCmSimRun cm_sim_run(const CCmSimScenario& aScenario, uint64_t aSeed, BOOL aTrace) {
    const CCmString strAlive = CCmLiveCounter::Dump();
    std::ostringstream trace;
    CCmSimRun run;
    run.m_ullSeed = aSeed;
    {
        CCmSimNetwork network(aSeed, aTrace ? &trace : nullptr);
        aScenario(network);
        run.m_Failures = network.GetFailures();
        run.m_ullDigest = network.GetTraceDigest();
    }
    if (const CCmString strLeft = CCmLiveCounter::Dump(); strLeft != strAlive)
        run.m_Failures.push_back("objects are left:\n" + strLeft);
    run.m_strTrace = trace.str();
    return run;
}

BOOL cm_sim_run_seeds(const CCmSimScenario& aScenario, uint64_t aFirst, uint64_t aCount, CCmSimRun& aFailed) {
    for (uint64_t ullSeed = aFirst; ullSeed < aFirst + aCount; ++ullSeed) {
        const CCmSimRun run = cm_sim_run(aScenario, ullSeed);
        if (run.m_Failures.empty())
            continue;
        aFailed = cm_sim_run(aScenario, ullSeed, TRUE);
        if (aFailed.m_ullDigest != run.m_ullDigest)
            aFailed.m_Failures.insert(aFailed.m_Failures.begin(), "the second run of this seed took another course");
        return FALSE;
    }
    return TRUE;
}

int cm_sim_main(int argc, char** argv, const CCmSimScenario& aScenario) {
    const uint64_t ullFirst = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
    const uint64_t ullCount = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1000;
    CCmSimRun run;
    if (argc == 2) {
        run = cm_sim_run(aScenario, ullFirst, TRUE);
    } else if (cm_sim_run_seeds(aScenario, ullFirst, ullCount, run)) {
        std::printf("%" PRIu64 " seeds, no failure\n", ullCount);
        return 0;
    }
    std::fputs(run.m_strTrace.c_str(), stdout);
    for (const std::string& strFailure : run.m_Failures)
        std::printf("seed %" PRIu64 " failed: %s\n", run.m_ullSeed, strFailure.c_str());
    return run.m_Failures.empty() ? 0 : 1;
}
