#include "tools/application.h"
#include "tools/commands.h"
#include "tools/echo_server.h"

namespace tool {

// The main thread is also the network thread: bytes are sent back in the thread that received them.
int RunEcho(const Arguments& aArguments) {
    Application::RaiseDescriptorLimit();
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    EchoServer server(aArguments, console);
    if (application.IsStarted() && !server.Start())
        return EXIT_FAILED;
    const int nStatus = application.Run();
    application.Drain();
    return nStatus;
}

}  // namespace tool
