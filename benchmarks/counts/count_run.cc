// count_run PATH MESSAGES: sends MESSAGES messages of 64 bytes, or requests, on one of the paths below, for
// instructions_test.py, which counts the cost.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>

#include "benchmarks/counts/message_path.h"

namespace {

constexpr DWORD SIZE = 64;
constexpr DWORD RAW = CCmConnectionManager::CTYPE_TCP;

using CRun = std::function<void(size_t)>;

// In one thread, so that the turns of two decide nothing.
CRun Stream(DWORD aType) {
    return [dwType = aType | CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY](size_t aMessages) {
        StreamCost(CTestNetwork(CCmThreadManager::NETWORK_THREAD_MAIN), dwType, aMessages, SIZE);
    };
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, CRun> paths = {
        {"echo", [](size_t aMessages) { EchoCost(CTestNetwork(), TRUE, aMessages, SIZE); }},
        {"coroutine", [](size_t aMessages) { CoroutineEchoCost(CTestNetwork(), aMessages, SIZE); }},
        {"http", [](size_t aMessages) { HttpCost(CTestNetwork(), aMessages); }},
        {"raw", Stream(RAW)},
        {"length", Stream(RAW | CCmConnectionManager::CTYPE_PDU_LENGTH)},
        {"package", Stream(RAW | CCmConnectionManager::CTYPE_PDU_PACKAGE)},
    };
    const auto itPath = paths.find(argc == 3 ? argv[1] : "");
    if (itPath == paths.end()) {
        std::fprintf(stderr, "usage: count_run echo|coroutine|http|raw|length|package MESSAGES\n");
        return 2;
    }
    itPath->second(std::strtoul(argv[2], nullptr, 10));
    return testing::UnitTest::GetInstance()->Passed() ? 0 : 1;
}
