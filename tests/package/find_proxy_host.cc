// The C++ host of find_proxy.c: the library's main and network threads, and a thread of its own for C.
#include <thread>

#include "talvo/talvo.h"

extern "C" int find_in_c(void);

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    int nFailures = 1;
    std::thread([&] { nFailures = find_in_c(); }).join();
    CCmThreadManager::Instance()->StopAllThreads();
    CCmThreadManager::Instance()->JoinAllThreads();
    CCmConnectionManager::CleanupInstance();
    return nFailures;
}
