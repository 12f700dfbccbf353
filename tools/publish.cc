#include "tools/application.h"
#include "tools/commands.h"
#include "tools/publisher.h"

namespace tool {

// The main thread is also the network thread: a line goes to all receivers without a change of threads.
int RunPublish(const Arguments& aArguments) {
    Application::RaiseDescriptorLimit();
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    int nStatus = EXIT_FAILED;
    {
        Publisher publisher(aArguments, application, console);
        if (application.IsStarted())
            publisher.Start();
        nStatus = application.Run();
    }
    application.Drain();  // the last lines are sent
    return nStatus;
}

}  // namespace tool
