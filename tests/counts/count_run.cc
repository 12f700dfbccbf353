// count_run raw|length|package MESSAGES: streams so many messages of 64 bytes, for instructions_test.py, which counts what it
// costs.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "tests/counts/message_path.h"

int main(int argc, char** argv) {
    const std::map<std::string, DWORD> types = {
        {"raw", CCmConnectionManager::CTYPE_TCP},
        {"length", CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_PDU_LENGTH},
        {"package", CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_PDU_PACKAGE}};
    const auto itType = types.find(argc == 3 ? argv[1] : "");
    if (itType == types.end()) {
        std::fprintf(stderr, "usage: count_run raw|length|package MESSAGES\n");
        return 2;
    }
    StreamCost(CTestNetwork(), itType->second, std::strtoul(argv[2], nullptr, 10), 64);
    return testing::UnitTest::GetInstance()->Passed() ? 0 : 1;
}
