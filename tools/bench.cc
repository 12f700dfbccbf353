#include "tools/application.h"
#include "tools/bench_load.h"
#include "tools/bench_report.h"
#include "tools/commands.h"
#include "tools/connection_type.h"
#include "tools/echo_server.h"

namespace tool {

namespace {

BenchPlan MakePlan(const Arguments& aArguments) {
    BenchPlan plan;
    if (!aArguments.m_strRequest.empty())
        plan.m_Kind = BenchPlan::HTTP;
    else if (aArguments.m_bOneWay)
        plan.m_Kind = BenchPlan::ONE_WAY;
    plan.m_stSize = aArguments.m_dwSize;
    plan.m_strRequest = aArguments.m_strRequest;
    plan.m_dRate = aArguments.m_dwRate;
    plan.m_stConnections = aArguments.m_dwConnections;
    plan.m_llSeconds = aArguments.m_dwSeconds;
    plan.m_bTakesTimes = aArguments.m_bSelf && aArguments.m_bOneWay;
    plan.m_bNumbered = MayLose(aArguments.m_dwType) && !aArguments.m_bOneWay;
    return plan;
}

// With --self: the server in this program. aArguments (in and out): gets its address.
bool StartServer(EchoServer& aServer, BenchLoad*& aLoad, Arguments& aArguments, Console& aConsole) {
    const CmResult rv = aServer.StartQuietly([&aLoad](int64_t aDueNs) { aLoad->OnArrived(aDueNs); }, aArguments.m_Addr);
    if (rv != CM_OK)
        aConsole.Problem({CAUSE_LOCAL, "cannot listen on 127.0.0.1: " + DescribeResult(rv)});
    return rv == CM_OK;
}

}  // namespace

// The main thread is also the network thread, so that the measured time contains no change of threads.
int RunBench(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application::RaiseDescriptorLimit();
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    if (!application.IsStarted())
        return application.Run();
    Arguments client = aArguments;
    Arguments server = aArguments;
    server.m_bDiscard = aArguments.m_bOneWay;
    server.m_Addr = CCmInetAddr("127.0.0.1", 0);
    EchoServer self(server, console);
    BenchLoad* pLoad = nullptr;
    if (aArguments.m_bSelf && !StartServer(self, pLoad, client, console))
        return EXIT_FAILED;
    BenchLoad load(client, MakePlan(aArguments), application, console);
    pLoad = &load;
    load.Start();
    const int nStatus = application.Run();
    if (!load.HasResults()) {
        if (nStatus == EXIT_OK)
            load.Complain({CAUSE_TIMEOUT, "no answer came"});
        return nStatus == EXIT_OK ? EXIT_FAILED : nStatus;
    }
    const std::string strTarget = aArguments.m_bSelf ? "this program" : aArguments.m_strTarget;
    ReportBench(aArguments, strTarget, load.GetResults(), console);
    const std::string strPlot = aArguments.m_strPlot.empty()
                                    ? ""
                                    : PlotBench(aArguments.m_strPlot, "talvo bench, " + strTarget, load.GetResults().m_Latency);
    if (!strPlot.empty())
        console.Problem({CAUSE_LOCAL, "--plot: " + strPlot}, "name", aArguments.m_strPlot);
    return strPlot.empty() ? nStatus : EXIT_FAILED;
}

}  // namespace tool
