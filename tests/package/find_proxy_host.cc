// The C++ host of find_proxy.c: the library's main and network threads, and a thread of its own for C.
#include <thread>

#include "talvo/talvo.h"

extern "C" int find_in_c(const char* script);

// The slots that the room of the proxies fills before main, which a linker could leave out.
static bool AreProxiesLinked() {
    CCmBaseTypeMakers makers;
    return cm_get_base_type(CM_TRANSPORT_TYPE_PROXY, makers) == CM_OK && makers.m_Connector && ICmProxySource::Get() &&
           ICmProxyCredentials::Get();
}

// find_proxy [SCRIPT]: see find_proxy.c
int main(int argc, char** argv) {
    if (!AreProxiesLinked())
        return 1;
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    int nFailures = 1;
    std::thread([&] { nFailures = find_in_c(argc > 1 ? argv[1] : nullptr); }).join();
    CCmThreadManager::Instance()->StopAllThreads();
    CCmThreadManager::Instance()->JoinAllThreads();
    CCmConnectionManager::CleanupInstance();
    return nFailures;
}
