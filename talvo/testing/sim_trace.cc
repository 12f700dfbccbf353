#include "talvo/testing/sim_trace.h"

#include <cinttypes>
#include <cstdio>
#include <ostream>

#include "talvo/testing/sim_schedule.h"

namespace talvo {

namespace {

std::string TextOf(int64_t aTime) {
    char szText[40];
    std::snprintf(szText, sizeof szText, "%6" PRId64 ".%06" PRId64, aTime / 1000000, aTime % 1000000);
    return szText;
}

std::string TextOf(const CCmInetAddr& aAddr) {
    char szText[64];
    aAddr.Print(szText, sizeof szText);
    return szText;
}

}  // namespace

void CSimTrace::Begin_i(const char* aWhat) {
    Add_i(static_cast<uint64_t>(m_Schedule.Now()));
    for (const char* p = aWhat; *p; ++p)
        Add_i(static_cast<unsigned char>(*p));
    if (m_pOut)
        *m_pOut << TextOf(m_Schedule.Now()) << ' ';
}

void CSimTrace::Add_i(const CCmInetAddr& aAddr) { Add_i(uint64_t{aAddr.GetIpAddrIn4Bytes()} << 16 | aAddr.GetPort()); }

void CSimTrace::Note(const CCmSimEnd& aEnd, const char* aWhat, int64_t aNumber) {
    Begin_i(aWhat);
    Add_i(aEnd.m_AddrLocal);
    Add_i(aEnd.m_AddrPeer);
    Add_i(static_cast<uint64_t>(aNumber));
    if (!m_pOut)
        return;
    *m_pOut << TextOf(aEnd.m_AddrLocal) << " > " << TextOf(aEnd.m_AddrPeer) << ' ' << aWhat;
    if (aNumber >= 0)
        *m_pOut << ' ' << aNumber;
    *m_pOut << '\n';
}

void CSimTrace::Note(const CCmInetAddr& aAddr, const char* aWhat) {
    Begin_i(aWhat);
    Add_i(aAddr);
    if (m_pOut)
        *m_pOut << TextOf(aAddr) << ' ' << aWhat << '\n';
}

void CSimTrace::Note(const std::string& aText) {
    Begin_i(aText.c_str());
    if (m_pOut)
        *m_pOut << aText << '\n';
}

void CSimTrace::Fail(const std::string& aText) {
    Note("FAILED " + aText);
    m_Failures.push_back(TextOf(m_Schedule.Now()) + ' ' + aText);
}

}  // namespace talvo
