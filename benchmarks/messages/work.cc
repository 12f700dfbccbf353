#include "benchmarks/messages/work.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {
namespace {

constexpr const char* USAGE =
    "usage: PROGRAM send|pong PORT SIZE [--type NAME]\n"
    "       PROGRAM recv|ping --port PORT --size SIZE [--type NAME] [--count N] [--seconds S] [--warm-up S] [--pid PEER]\n";
constexpr const char* ROLES[] = {"send", "recv", "pong", "ping"};  // as ERole

// Reading the clock for every message would cost a fast receiver more than the message.
constexpr uint64_t CLOCK_EVERY = 32;

[[noreturn]] void ExitWithUsage() {
    std::fputs(USAGE, stderr);
    std::exit(2);
}

[[noreturn]] void ExitWithFault(const char* aWhat, uint64_t aIs, uint64_t aExpected) {
    std::fprintf(stderr, "%s is %llu instead of %llu\n", aWhat, static_cast<unsigned long long>(aIs),
                 static_cast<unsigned long long>(aExpected));
    std::exit(1);
}

char LetterOf(size_t aSize) { return static_cast<char>('a' + aSize % 26); }

void Take(CMessageWork& aWork, int aOption, const char* aText) {
    const double dValue = aText ? std::atof(aText) : 0;
    switch (aOption) {
    case 'p':
        aWork.m_wPort = static_cast<uint16_t>(dValue);
        aWork.m_strPath = std::strchr(aText, '/') ? aText : "";
        break;
    case 's':
        aWork.m_nSize = static_cast<size_t>(dValue);
        break;
    case 'c':
        aWork.m_ullCount = static_cast<uint64_t>(dValue);
        break;
    case 'd':
        aWork.m_dSeconds = dValue;
        break;
    case 'w':
        aWork.m_dWarmUp = dValue;
        break;
    case 'i':
        aWork.m_Peer = static_cast<pid_t>(dValue);
        break;
    case 't':
        aWork.m_strType = aText;
        break;
    default:
        ExitWithUsage();
    }
}

}  // namespace

CMessageWork ParseMessageWork(int aArgc, char** aArgv) {
    static const option s_Options[] = {
        {"port", required_argument, nullptr, 'p'},    {"size", required_argument, nullptr, 's'},
        {"count", required_argument, nullptr, 'c'},   {"seconds", required_argument, nullptr, 'd'},
        {"warm-up", required_argument, nullptr, 'w'}, {"pid", required_argument, nullptr, 'i'},
        {"type", required_argument, nullptr, 't'},    {nullptr, 0, nullptr, 0}};
    CMessageWork work;
    for (int nOption; (nOption = getopt_long(aArgc, aArgv, "", s_Options, nullptr)) != -1;)
        Take(work, nOption, optarg);
    const char* const* ppRole = std::find_if(std::begin(ROLES), std::end(ROLES), [&](const char* aRole) {
        return optind < aArgc && std::strcmp(aRole, aArgv[optind]) == 0;
    });
    if (ppRole == std::end(ROLES))
        ExitWithUsage();
    work.m_Role = static_cast<ERole>(ppRole - ROLES);
    const int nFurther = aArgc - optind - 1;
    if (nFurther != (work.IsListener() ? 2 : 0))
        ExitWithUsage();
    if (work.IsListener()) {
        Take(work, 'p', aArgv[optind + 1]);
        Take(work, 's', aArgv[optind + 2]);
    }
    if ((work.m_wPort == 0 && work.m_strPath.empty()) || work.m_nSize <= sizeof(uint64_t) || work.m_ullCount == 0)
        ExitWithUsage();
    return work;
}

void FillMessage(void* aMessage, size_t aSize, uint64_t aNumber) {
    std::memset(aMessage, LetterOf(aSize), aSize);
    std::memcpy(aMessage, &aNumber, sizeof(aNumber));
}

CArrived::CArrived(const void* aMessage, size_t aSize) : m_nSize(aSize) {
    if (aSize < sizeof(m_ullNumber))
        return;  // its size is wrong, which the caller detects
    std::memcpy(&m_ullNumber, aMessage, sizeof(m_ullNumber));
    m_cLast = static_cast<const char*>(aMessage)[aSize - 1];
}

uint64_t CheckMessage(const CArrived& aMessage, size_t aExpectedSize) {
    if (aMessage.m_nSize != aExpectedSize)
        ExitWithFault("a message's size", aMessage.m_nSize, aExpectedSize);
    const char cExpected = LetterOf(aExpectedSize);
    if (aMessage.m_cLast != cExpected)
        ExitWithFault("a message's last byte", static_cast<uint8_t>(aMessage.m_cLast), static_cast<uint8_t>(cExpected));
    return aMessage.m_ullNumber;
}

bool CMeasurement::Count(int64_t aNow) {
    if (m_llStart == 0)
        m_llStart = aNow;
    if (m_llFrom != 0) {
        m_llTo = aNow;
        if (m_ullDone - m_ullCounted < m_Work.m_ullCount && aNow - m_llFrom < static_cast<int64_t>(m_Work.m_dSeconds * 1e9))
            return true;
        m_ullCounted = m_ullDone - m_ullCounted;
        m_llCpu = CpuNs() - m_llCpu;
        return false;
    }
    if (aNow - m_llStart < static_cast<int64_t>(m_Work.m_dWarmUp * 1e9))
        return true;
    m_llFrom = aNow;
    m_ullCounted = m_ullDone;
    m_llCpu = CpuNs();
    return true;
}

// Of both processes.
int64_t CMeasurement::CpuNs() const { return bench::CpuNs(0) + (m_Work.m_Peer != 0 ? bench::CpuNs(m_Work.m_Peer) : 0); }

void CMeasurement::Print(const CHistogram* aLatencies) const {
    const double dMessages = static_cast<double>(m_ullCounted);
    CReport report;
    report.Add("rate", dMessages * 1e9 / static_cast<double>(m_llTo - m_llFrom));
    report.Add("messages", dMessages);
    if (aLatencies) {
        report.Add("p50_us", aLatencies->PercentileUs(0.5));
        report.Add("p99_us", aLatencies->PercentileUs(0.99));
    }
    if (m_Work.m_Peer != 0)
        report.Add("cpu_ns", static_cast<double>(m_llCpu) / dMessages);
    report.Print();
}

void CMeasurement::TakeNext(const CArrived& aMessage) {
    const uint64_t ullNumber = CheckMessage(aMessage, m_Work.m_nSize);
    if (ullNumber != m_ullDone)
        ExitWithFault("a message's number", ullNumber, m_ullDone);
    ++m_ullDone;
}

bool CStreamReceiver::Take(const CArrived& aMessage) {
    TakeNext(aMessage);
    return m_ullDone % CLOCK_EVERY != 0 || Count(NowNs());
}

uint64_t CPinger::Next() {
    m_llSent = NowNs();
    return m_ullDone;
}

bool CPinger::Take(const CArrived& aMessage) {
    const int64_t llNow = NowNs();
    TakeNext(aMessage);
    if (IsWarm())
        m_Latencies.Record(llNow - m_llSent);
    return Count(llNow);
}

}  // namespace bench
