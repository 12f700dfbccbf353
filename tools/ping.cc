#include "tools/application.h"
#include "tools/commands.h"
#include "tools/ping_client.h"

namespace tool {

// The main thread serves as network thread, so that the time of a change of threads is not measured.
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
