// Messages between two programs, on this library's connections for messages. In both programs the application's thread, the
// main thread, is not the network thread. message.h describes the messages, server.h the counts.
//
// stream sends max(COUNT/10, 100) D to warm up, then COUNT, each part after the answer to an E, and prints
// {"msgs_s":...,"mb_s":...}, millions of bytes. ping sends COUNT P, one at a time, and prints
// {"msgs_s":...,"p50_us":...,"p99_us":...,"p999_us":...}. Any error ends the client with status 1.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "benchmarks/msg/client.h"
#include "benchmarks/msg/server.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"

namespace {

constexpr const char* USAGE =
    "usage: talvo_bench_msg server PORT [--type TYPE]\n"
    "       talvo_bench_msg client PORT stream|ping SIZE COUNT [--type TYPE]\n"
    "TYPE: length, package, reliable or reliable-plain\n"
    "SIZE: 10 to 16777216 bytes\n";

[[noreturn]] void ExitWithUsage() {
    std::fputs(USAGE, stderr);
    std::exit(2);
}

// A whole number from aMin to aMax.
uint64_t NumberOf(const char* aText, uint64_t aMin, uint64_t aMax) {
    char* pEnd = nullptr;
    const uint64_t ullNumber = std::strtoull(aText, &pEnd, 10);
    if (*aText == '-' || *pEnd != '\0' || ullNumber < aMin || ullNumber > aMax)
        ExitWithUsage();
    return ullNumber;
}

DWORD ParseType(int aArgc, char** aArgv) {
    static const option s_Options[] = {{"type", required_argument, nullptr, 't'}, {nullptr, 0, nullptr, 0}};
    const char* pType = "length";
    for (int nOption; (nOption = getopt_long(aArgc, aArgv, "", s_Options, nullptr)) != -1; pType = optarg) {
        if (nOption != 't')
            ExitWithUsage();
    }
    const DWORD dwType = bench::MessageType(pType);
    if (dwType == 0)
        ExitWithUsage();
    return dwType;
}

int RunClient(DWORD aType, const msg::CClientWork& aWork) {
    bench::CTalvoProcess process(0, nullptr);
    return CCmConnectionManager::Instance() ? msg::CClient(aWork).Run(aType) : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const DWORD dwType = ParseType(argc, argv);
    char** ppArgument = argv + optind;
    const int nArguments = argc - optind;
    const std::string_view strRole = nArguments > 1 ? ppArgument[0] : "";
    if (strRole == "server" && nArguments == 2)
        return msg::RunServer(dwType, static_cast<uint16_t>(NumberOf(ppArgument[1], 1, 65535)));
    if (strRole != "client" || nArguments != 5)
        ExitWithUsage();
    const std::string_view strWork = ppArgument[2];
    if (strWork != "stream" && strWork != "ping")
        ExitWithUsage();
    msg::CClientWork work;
    work.m_bPing = strWork == "ping";
    work.m_wPort = static_cast<uint16_t>(NumberOf(ppArgument[1], 1, 65535));
    work.m_dwSize = static_cast<DWORD>(NumberOf(ppArgument[3], msg::SHORTEST, CS_DEFAULT_MAX_MESSAGE_LEN));
    work.m_ullCount = NumberOf(ppArgument[4], 1, UINT64_MAX);
    return RunClient(dwType, work);
}
