// What a user does with the library, told step by step, so that any step may fail.
#pragma once

#include <functional>
#include <list>
#include <string>

#include "talvo/base/config.h"
#include "tests/memory/failures.h"
#include "tests/support/fake_clock.h"
#include "tests/support/network_fixture.h"
#include "tests/support/temp_dir.h"

// A property that was broken; the first one counts. Callbacks of the library do not throw, so it is written down.
class CViolation {
public:
    static void Require(bool aHolds, const char* aText) {
        if (!aHolds && !s_szText)
            s_szText = aText;
    }
    static inline const char* s_szText = nullptr;
};

// Names are looked up in a hosts file of the test's own, and at a server that is not there.
class CConfiguration {
public:
    CConfiguration() {
        const std::string strHosts = m_Dir.Write("hosts", "127.0.0.1 localhost\n");
        const std::string strText =
            "[Dns]\nServers=127.0.0.1:1\nTimeoutMs=1\nTries=1\nHostsFile=" + strHosts + "\nResolverFile=\n";
        EXPECT_EQ(CM_OK, load_config_file(m_Dir.Write("talvo.cfg", strText).c_str()));
    }

private:
    CCmTempDir m_Dir;
};

// A process of the library's. Time is the test's and goes on with every turn of the main thread's loop.
class CWorld {
public:
    explicit CWorld(CCmThreadManager::ENetworkThreadMode aMode)
        : m_bOwnThread(aMode == CCmThreadManager::NETWORK_THREAD_OWN), m_Network(aMode) {}

    // Turns of the loop until the condition holds. FALSE: it does not, however long one waits.
    BOOL Run(const std::function<bool()>& aCondition);
    // Nothing that a scenario made is left, descriptors included.
    void RequireClean();

    // What a call of the library returns.
    template <class Callable>
    static auto Do(Callable aCallable) {
        const CLibraryCode library;
        return aCallable();
    }

    const BOOL m_bOwnThread;

private:
    const CConfiguration m_Configuration;
    CCmFakeClock m_Clock;
    CTestNetwork m_Network;
    std::string m_strLeft;
    int m_nDescriptors = -1;
};

// One end of a connection: keeps what it shall send until that was taken, and what comes.
class CEnd : public ICmTransportSink {
public:
    ~CEnd() override { Close(); }

    void Open(ICmTransport* aTransport);
    void Close();
    void Flush();
    BOOL IsOver() const { return !m_pTransport; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    std::list<std::string> m_ToSend;
    std::string m_strReceived;  // on a server's side sent back
    BOOL m_bEcho = FALSE;

private:
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// A scenario. TRUE: everything that it wants to do was done.
struct CScenario {
    const char* m_szName;
    CCmThreadManager::ENetworkThreadMode m_Mode;
    std::function<bool(CWorld& aWorld)> m_Run;
};
extern const std::vector<CScenario> SCENARIOS;
