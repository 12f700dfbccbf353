// Time, chance and the order of events of a simulated network.
#pragma once

#include <functional>
#include <map>
#include <queue>
#include <string>
#include <vector>

#include "talvo/base/clock.h"
#include "talvo/event/thread.h"
#include "talvo/event/timer_queue_ordered_list.h"

class CSimAcceptor;
class CSimTransport;
class CSimWatch;

constexpr int64_t SIM_MSEC = 1000;  // simulated time is counted in microseconds
constexpr int64_t SIM_SEC = 1000 * SIM_MSEC;

// How links behave. At first: calm, every byte arrives after a millisecond.
struct CSimWeather {
    int64_t m_llMinDelay = SIM_MSEC;
    int64_t m_llMaxDelay = SIM_MSEC;
    DWORD m_dwWindow = 1 << 20;  // bytes on their way in one direction of a stream
    DWORD m_dwMaxPiece = 16384;  // of a stream, handed up at once
    DWORD m_dwRefused = 0;       // percent of sends of which a part or nothing is taken
    DWORD m_dwLost = 0;          // percent of datagrams
    DWORD m_dwDoubled = 0;       // percent of datagrams
    DWORD m_dwMangled = 0;       // percent of datagrams that are cut or have something behind them
    DWORD m_dwBroken = 0;        // of 10,000 sends: the stream breaks
    BOOL m_bSilent = FALSE;      // nothing arrives: streams wait for better weather, datagrams are lost
};

// One simulation: the clock of the library, the main thread's timer queue and the ends of all links, while in scope. The clock
// goes straight to what comes next. What happens follows from the seed alone. One at a time, one thread.
class CSimNetwork : private ICmClock {
public:
    // aVerbose: every note is printed.
    explicit CSimNetwork(uint64_t aSeed, BOOL aVerbose = FALSE);
    ~CSimNetwork() override;
    CSimNetwork(const CSimNetwork&) = delete;
    CSimNetwork& operator=(const CSimNetwork&) = delete;

    int64_t Now() const { return m_llNow - m_llStart; }
    void After(int64_t aDelay, std::function<void()> aRun);
    void RunFor(int64_t aTime);
    // As a machine that slept: what was due meanwhile comes at once.
    void JumpClock(int64_t aTime) {
        m_bJumped = TRUE;
        m_llNow += aTime;
    }
    // Whether the clock has jumped, so that nothing is known of when timers fire.
    BOOL HasJumped() const { return m_bJumped; }
    // What the library reads as milliseconds.
    int64_t Tick() const { return m_llNow / SIM_MSEC; }

    const CSimWeather& GetWeather() const { return m_Weather; }
    void SetWeather(const CSimWeather& aWeather);
    // Something of a stream arrives, now or when the silence ends.
    void Arrive(std::function<void()> aRun);

    uint64_t Random(uint64_t aBound);  // 0 to aBound - 1
    int64_t RandomTime(int64_t aBound) { return static_cast<int64_t>(Random(static_cast<uint64_t>(aBound))); }
    BOOL Chance(uint64_t aPercent) { return Random(100) < aPercent; }
    int64_t RandomDelay() { return m_Weather.m_llMinDelay + RandomTime(m_Weather.m_llMaxDelay - m_Weather.m_llMinDelay + 1); }

    // Something has happened: part of the digest.
    void Note(const char* aWhat, uint64_t aNumber, uint64_t aMore = 0);
    uint64_t GetDigest() const { return m_ullDigest; }
    // A promise was broken.
    void Fail(const std::string& aText) { m_Failures.push_back(std::to_string(Now()) + ": " + aText); }
    const std::vector<std::string>& GetFailures() const { return m_Failures; }

    // For the ends. A key is the own port and, in the lower half, the peer's.
    WORD NewPort() { return ++m_wLastPort; }
    std::map<DWORD, CSimTransport*> m_Ends;     // open ones; not owned
    std::map<WORD, CSimAcceptor*> m_Acceptors;  // listening ones; not owned

    // Called whenever everything that was due has been done. May be null.
    std::function<void()> m_Settled;
    CSimWatch* m_pWatch = nullptr;  // not owned

private:
    struct CEvent {
        int64_t m_llAt;
        uint64_t m_ullNumber;
        std::function<void()> m_Run;
        bool operator<(const CEvent& aRight) const {  // the later one is less
            return m_llAt != aRight.m_llAt ? m_llAt > aRight.m_llAt : m_ullNumber > aRight.m_ullNumber;
        }
    };

    // Lends the calling thread, as the main thread, a timer queue that follows the simulated clock.
    class CSimThread : public ACmThread {
    public:
        ~CSimThread() override { CloseLink(); }
        void OnThreadRun() override {}
        ICmTimerQueue* GetTimerQueue() override { return &m_Timers; }
        CCmTimerQueueOrderedList m_Timers;
    };

    int64_t GetMonotonicUsec() override { return m_llNow; }
    int64_t GetWallUsec() override { return m_llNow; }
    int64_t NextTimer_i();

    uint64_t m_ullChance;
    const int64_t m_llStart;
    int64_t m_llNow;
    const BOOL m_bVerbose;
    BOOL m_bJumped = FALSE;
    CSimWeather m_Weather;
    std::vector<std::function<void()>> m_Held;  // arrivals, in their order
    uint64_t m_ullDigest = 0xCBF29CE484222325;
    uint64_t m_ullEvents = 0;
    std::priority_queue<CEvent> m_Events;
    std::vector<std::string> m_Failures;
    WORD m_wLastPort = 1024;
    CSimThread* m_pThread;  // given up with Destory
};
