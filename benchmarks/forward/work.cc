#include "benchmarks/forward/work.h"

#include <getopt.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {
namespace {

constexpr const char* USAGE =
    "usage: PROGRAM [recv] PORT RECEIVERS SIZE COUNT [--rate N] [--stopped N] [--skip N] [--pid PRODUCER]\n"
    "               [--type TYPE] [--policy POLICY] [--user]\n"
    "SIZE: at least 17 bytes\n";
constexpr int64_t QUIET_NS = 500000000;
constexpr size_t HEADER = 2 * sizeof(uint64_t);

[[noreturn]] void ExitWithUsage() {
    std::fputs(USAGE, stderr);
    std::exit(2);
}

[[noreturn]] void ExitWithFault(const char* aWhat) {
    std::fprintf(stderr, "a message has a wrong %s\n", aWhat);
    std::exit(1);
}

char LetterOf(size_t aSize) { return static_cast<char>('a' + aSize % 26); }

uint64_t NumberOf(const char* aText) {
    char* pEnd = nullptr;
    const uint64_t ullNumber = std::strtoull(aText, &pEnd, 10);
    if (*aText == '-' || *aText == '\0' || *pEnd != '\0')
        ExitWithUsage();
    return ullNumber;
}

void Take(CForwardWork& aWork, int aOption, const char* aText) {
    switch (aOption) {
    case 'r':
        aWork.m_ullRate = NumberOf(aText);
        break;
    case 's':
        aWork.m_nStopped = NumberOf(aText);
        break;
    case 'k':
        aWork.m_ullSkip = NumberOf(aText);
        break;
    case 'p':
        aWork.m_Producer = static_cast<pid_t>(NumberOf(aText));
        break;
    case 't':
        aWork.m_strType = aText;
        break;
    case 'l':
        aWork.m_strPolicy = aText;
        break;
    case 'u':
        aWork.m_bUser = true;
        break;
    default:
        ExitWithUsage();
    }
}

double PeakKib() {
    std::ifstream status("/proc/self/status");
    double dKib = 0;
    for (std::string strWord; status >> strWord;) {
        if (strWord == "VmHWM:" && status >> dKib)
            return dKib;
    }
    Fail("the peak of the memory");
}

}  // namespace

CForwardWork ParseForwardWork(int aArgc, char** aArgv) {
    static const option s_Options[] = {{"rate", required_argument, nullptr, 'r'}, {"stopped", required_argument, nullptr, 's'},
                                       {"skip", required_argument, nullptr, 'k'}, {"pid", required_argument, nullptr, 'p'},
                                       {"type", required_argument, nullptr, 't'}, {"policy", required_argument, nullptr, 'l'},
                                       {"user", no_argument, nullptr, 'u'},       {nullptr, 0, nullptr, 0}};
    CForwardWork work;
    for (int nOption; (nOption = getopt_long(aArgc, aArgv, "", s_Options, nullptr)) != -1;)
        Take(work, nOption, optarg);
    work.m_bReceives = optind < aArgc && std::strcmp(aArgv[optind], "recv") == 0;
    char** ppArguments = aArgv + optind + work.m_bReceives;
    if (aArgv + aArgc - ppArguments != 4)
        ExitWithUsage();
    const uint64_t ullPort = NumberOf(ppArguments[0]);
    work.m_wPort = static_cast<uint16_t>(ullPort);
    work.m_nReceivers = NumberOf(ppArguments[1]);
    work.m_nSize = NumberOf(ppArguments[2]);
    work.m_ullCount = NumberOf(ppArguments[3]);
    if (ullPort < 1 || ullPort > 65535 || work.m_nReceivers <= work.m_nStopped || work.m_nSize <= HEADER ||
        work.m_ullCount == 0)
        ExitWithUsage();
    RaiseDescriptorLimit();
    return work;
}

int64_t ThreadCpuNs() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return int64_t{used.tv_sec} * 1000000000 + used.tv_nsec;
}

void CForwarding::Start() {
    m_llCpu = CpuNs(0);
    m_llStart = NowNs();
}

int64_t CForwarding::GetWait() const {
    if (m_Work.m_ullRate == 0)
        return 0;
    const int64_t llDue = m_llStart + static_cast<int64_t>(m_ullNumber * 1000000000 / m_Work.m_ullRate);
    return std::max<int64_t>(llDue - NowNs(), 0);
}

void CForwarding::Sleep() const {
    if (const int64_t llWait = GetWait(); llWait > 0)
        usleep(static_cast<useconds_t>((llWait + 999) / 1000));
}

void CForwarding::Fill(void* aMessage) {
    const int64_t llNow = m_Work.m_ullRate > 0 ? NowNs() : 0;
    std::memset(aMessage, LetterOf(m_Work.m_nSize), m_Work.m_nSize);
    std::memcpy(aMessage, &m_ullNumber, sizeof(m_ullNumber));
    std::memcpy(static_cast<char*>(aMessage) + sizeof(m_ullNumber), &llNow, sizeof(llNow));
    ++m_ullNumber;
}

void CForwarding::Print() const {
    CReport report;
    report.Add("cpu_start_ns", static_cast<double>(m_llCpu));
    report.Add("forward_ns", static_cast<double>(m_llForward) / static_cast<double>(m_Work.m_ullCount));
    report.Add("peak_kib", PeakKib());
    report.Print();
}

CDeliveries::CDeliveries(const CForwardWork& aWork)
    : m_Work(aWork), m_nReading(aWork.m_nReceivers - aWork.m_nStopped), m_Next(aWork.m_nReceivers) {}

void CDeliveries::Take(size_t aReceiver, const void* aMessage, size_t aSize) {
    const auto* pMessage = static_cast<const char*>(aMessage);
    if (aSize != m_Work.m_nSize)
        ExitWithFault("size");
    uint64_t ullNumber = 0;
    int64_t llSent = 0;
    std::memcpy(&ullNumber, pMessage, sizeof(ullNumber));
    std::memcpy(&llSent, pMessage + sizeof(ullNumber), sizeof(llSent));
    if (pMessage[aSize - 1] != LetterOf(aSize))
        ExitWithFault("last byte");
    if (ullNumber < m_Next[aReceiver] || ullNumber >= m_Work.m_ullCount)
        ExitWithFault("number");
    m_Next[aReceiver] = ullNumber + 1;
    m_nFinished += ullNumber + 1 == m_Work.m_ullCount;
    ++m_ullDelivered;
    if (m_llFirst == 0)
        m_llFirst = m_llLast = NowNs();
    if (m_Work.m_ullRate > 0)
        TakeTime(ullNumber, llSent, NowNs());
    // The clock would cost a fast receiver as much as the message.
    if (m_ullDelivered % 32 == 0 || m_nFinished == m_nReading)
        m_llLast = NowNs();
}

void CDeliveries::TakeTime(uint64_t aNumber, int64_t aSent, int64_t aNow) {
    const auto it = m_Partly.try_emplace(aNumber).first;
    if (++it->second < m_nReading)
        return;
    m_Partly.erase(it);
    if (aNumber >= m_Work.m_ullSkip)
        m_Latencies.Record(aNow - aSent);
}

bool CDeliveries::IsOver() {
    if (m_nFinished == m_nReading)
        return true;
    if (m_ullSeen != m_ullDelivered) {
        m_ullSeen = m_ullDelivered;
        m_llSeen = NowNs();
    }
    return m_llSeen != 0 && NowNs() - m_llSeen > QUIET_NS;
}

void CDeliveries::Print() const {
    const auto dDelivered = static_cast<double>(m_ullDelivered);
    CReport report;
    report.Add("rate", dDelivered * 1e9 / static_cast<double>(m_llLast - m_llFirst));
    report.Add("delivered", dDelivered);
    if (m_Work.m_ullRate > 0) {
        report.Add("p50_us", m_Latencies.PercentileUs(0.5));
        report.Add("p99_us", m_Latencies.PercentileUs(0.99));
    }
    if (m_Work.m_Producer != 0)
        report.Add("cpu_end_ns", static_cast<double>(CpuNs(m_Work.m_Producer)));
    report.Print();
}

}  // namespace bench
