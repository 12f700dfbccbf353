#include "tools/application.h"
#include "tools/commands.h"
#include "tools/tls_look.h"

namespace tool {

int RunTls(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    TlsLook look(aArguments, application, console);
    look.Start();
    return application.Run();
}

}  // namespace tool
