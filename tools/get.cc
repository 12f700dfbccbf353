#include "tools/application.h"
#include "tools/commands.h"
#include "tools/getter.h"

namespace tool {

// The main thread is also the network thread: data goes to the file without a change of threads.
int RunGet(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    Getter getter(aArguments, application, console);
    getter.Start();
    const int nStatus = application.Run();
    return nStatus == EXIT_FAILED && Console::IsLost() ? CAUSE_LOCAL : nStatus;
}

}  // namespace tool
