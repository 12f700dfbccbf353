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

// What a browser sends beside Host and Accept.
constexpr char BROWSER[] =
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/115.0\r\n"
    "Accept-Language: en-US,en;q=0.5\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-Site: none\r\n"
    "Sec-Fetch-User: ?1\r\n";

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
        {"connect", [](size_t aMessages) { EchoOnceCost(CTestNetwork(), aMessages, SIZE); }},
        {"http", [](size_t aMessages) { HttpCost(CTestNetwork(), aMessages); }},
        {"browser", [](size_t aMessages) { HttpCost(CTestNetwork(), aMessages, nullptr, BROWSER); }},
        {"raw", Stream(RAW)},
        {"length", Stream(RAW | CCmConnectionManager::CTYPE_PDU_LENGTH)},
        {"package", Stream(RAW | CCmConnectionManager::CTYPE_PDU_PACKAGE)},
    };
    const auto itPath = paths.find(argc == 3 ? argv[1] : "");
    if (itPath == paths.end()) {
        std::fprintf(stderr, "usage: count_run echo|coroutine|connect|http|browser|raw|length|package MESSAGES\n");
        return 2;
    }
    itPath->second(std::strtoul(argv[2], nullptr, 10));
    return testing::UnitTest::GetInstance()->Passed() ? 0 : 1;
}
