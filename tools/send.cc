#include "tools/application.h"
#include "tools/commands.h"
#include "tools/send_attempts.h"

namespace tool {

int RunSend(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_OWN);
    SendAttempts attempts(aArguments, application, console);
    attempts.Start();
    return application.Run();
}

}  // namespace tool
