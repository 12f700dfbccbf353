#include "tests/memory/world.h"

#include <fcntl.h>

namespace {

constexpr int MAX_DESCRIPTORS = 64;
constexpr int QUICK_TURNS = 500;   // then each waits, since the system has times of its own
constexpr int MOST_TURNS = 20000;  // longer than any limit of the library, and than a look-up takes in real time
constexpr int TURNS_WITHOUT_MEMORY = 200;
constexpr long TURN_USEC = 100000;

int CountDescriptors() {
    int nCount = 0;
    for (int fd = 0; fd < MAX_DESCRIPTORS; ++fd)
        nCount += fcntl(fd, F_GETFD) != -1;
    return nCount;
}

// Objects that are alive, apart from the names that are remembered.
std::string Left() {
    std::istringstream all(CCmLiveCounter::Dump());
    std::string strLeft;
    for (std::string strLine; std::getline(all, strLine);)
        strLeft += strLine.starts_with("CCmDnsRecord ") ? "" : strLine + "\n";
    return strLeft;
}

}  // namespace

BOOL CWorld::Run(const std::function<bool()>& aCondition, BOOL aSystem) {
    int nTurnsSince = 0;
    for (int i = 0; i < MOST_TURNS && !g_szViolation; ++i) {
        if (aCondition())
            return TRUE;
        if (CCmFaults::HasFired() && ++nTurnsSince == TURNS_WITHOUT_MEMORY)
            CCmFaults::Disarm();
        const CCmTimeValue tvWait = m_bOwnThread || i > QUICK_TURNS ? CCmTimeValue(0, 1000) : CCmTimeValue::s_tvZero;
        if (ICmReactor* pMain = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN))
            Do([&] { static_cast<CCmReactorEpoll*>(pMain)->RunOnce(&tvWait); });
        m_Clock.Advance(CCmTimeValue(0, aSystem ? 1000 : TURN_USEC));
        if (aSystem)
            ms_sleep(1);
    }
    return FALSE;
}

void CWorld::RequireClean() {
    CCmFaults::Disarm();
    if (m_nDescriptors == -1) {
        int nTurns = 0;
        Run([&] { return ++nTurns > 100; });
        m_strLeft = Left();
        m_nDescriptors = CountDescriptors();
        return;
    }
    const std::string strBefore = m_strLeft;
    Run([&] { return Left() == strBefore && CountDescriptors() == m_nDescriptors; });
    m_strLeft = Left();
    Require(m_strLeft == strBefore, "objects are left");
    Require(CountDescriptors() == m_nDescriptors, "descriptors are left");
}
