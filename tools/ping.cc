#include "tools/application.h"
#include "tools/commands.h"
#include "tools/ping_client.h"

namespace tool {

// The main thread is also the network thread, so that the measured time contains no change of threads.
int RunPing(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    PingClient client(aArguments, application, console);
    client.Start();
    const int nStatus = application.Run();
    client.ReportStatistics();
    return nStatus;
}

}  // namespace tool
