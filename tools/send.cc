#include "tools/application.h"
#include "tools/commands.h"
#include "tools/sender.h"

namespace tool {

int RunSend(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_OWN);
    Sender sender(aArguments, application, console);
    sender.Start();
    return application.Run();
}

}  // namespace tool
