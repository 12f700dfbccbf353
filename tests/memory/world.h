// The process that a scenario runs in, and its time.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "talvo/base/config.h"
#include "talvo/testing/fake_clock.h"
#include "talvo/testing/faults.h"
#include "tests/support/network_fixture.h"
#include "tests/support/temp_dir.h"

// A property that was broken; the first one counts. Callbacks of the library do not throw, so it is written down.
inline const char* g_szViolation = nullptr;
inline void Require(bool aHolds, const char* aText) {
    if (!aHolds && !g_szViolation)
        g_szViolation = aText;
}

// Names are looked up in a hosts file of the test's own, and at a server that is not there.
class CConfiguration {
public:
    CConfiguration() {
        const std::string strHosts = s_Dir.Write("hosts", "127.0.0.1 localhost\n");
        const std::string strText =
            "[Dns]\nServers=127.0.0.1:1\nTimeoutMs=1\nTries=1\nHostsFile=" + strHosts + "\nResolverFile=\n";
        EXPECT_EQ(CM_OK, load_config_file(s_Dir.Write("talvo.cfg", strText).c_str()));
    }

private:
    static inline const CCmTempDir s_Dir;  // made before the runs, whose processes end without destructors
};

// Time goes on by itself while one of these is in scope, for calls that run the loop or wait for a thread.
class CTimeGoesOn {
    std::jthread m_Thread{[](const std::stop_token& aStop) {
        const CCmSafeCode safe;
        for (; !aStop.stop_requested(); ms_sleep(1))
            CCmFakeClock::AdvanceAny(CCmTimeValue(0, 100000));
    }};
};

enum class ELibrary { NETWORK_IS_MAIN, NETWORK_IS_OWN, NOT_STARTED };

// A process of the library's. Time is the test's and goes on with every turn of the main thread's loop.
class CWorld {
public:
    explicit CWorld(ELibrary aLibrary) : m_bOwnThread(aLibrary != ELibrary::NETWORK_IS_MAIN) {
        if (aLibrary != ELibrary::NOT_STARTED)
            m_Network.emplace(m_bOwnThread ? CCmThreadManager::NETWORK_THREAD_OWN : CCmThreadManager::NETWORK_THREAD_MAIN);
    }

    // Turns of the loop until the condition holds. FALSE: it does not, however long one waits. aSystem: another process has a
    // part in it, so time goes on as the system's.
    BOOL Run(const std::function<bool()>& aCondition, BOOL aSystem = FALSE);
    // Nothing that a scenario made is left, descriptors included.
    void RequireClean();

    // The result of a call of the library.
    template <class Callable>
    static auto Do(Callable aCallable) {
        const CCmFaultyCode faulty;
        return aCallable();
    }

    const BOOL m_bOwnThread;

private:
    const CConfiguration m_Configuration;
    CCmFakeClock m_Clock;
    std::optional<CTestNetwork> m_Network;
    std::string m_strLeft;
    int m_nDescriptors = -1;
};
