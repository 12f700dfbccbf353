#include "tools/application.h"
#include "tools/commands.h"
#include "tools/proxy_look.h"

namespace tool {

int RunProxy(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    ProxyLook look(aArguments, application, console);
    look.Start();
    return application.Run();
}

}  // namespace tool
