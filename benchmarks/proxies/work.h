// The work of the in-process echo: a client and a server with a thread each, and sockets in a third, the network thread. First
// round trips of one message, then as many messages one way as the client may send. Each library hands bytes and calls from
// thread to thread in its own way; this part is the same for all.
#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <string_view>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace bench {

constexpr size_t MESSAGE_SIZE = 64;
constexpr uint64_t WARM_UP = 1000;
constexpr uint64_t ROUND_TRIPS = 15000;
constexpr uint64_t BURST = 500000;
constexpr uint64_t ECHO_BYTES = (WARM_UP + ROUND_TRIPS) * MESSAGE_SIZE;
constexpr uint64_t BURST_BYTES = BURST * MESSAGE_SIZE;
constexpr std::string_view MESSAGE = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
static_assert(MESSAGE.size() == MESSAGE_SIZE);

constexpr int NETWORK_CORE = 0;
constexpr int USER_CORE = 1;

// One end of the connection, for its user.
class CChannel {
public:
    // User's thread. False: back-pressure, and nothing is taken; CUser::OnWritable follows.
    virtual bool Send(std::string_view aMessage) = 0;
    virtual ~CChannel() = default;
};

// All calls come in the user's thread.
class CUser {
public:
    virtual void OnConnected(CChannel* aChannel) { m_pChannel = aChannel; }
    virtual void OnBytes(std::string_view aBytes) = 0;
    virtual void OnWritable() {}
    virtual ~CUser() = default;

protected:
    CChannel* m_pChannel = nullptr;  // not owned
};

// Sends all data back, up to the burst, which it only counts.
class CServerUser : public CUser {
public:
    void OnBytes(std::string_view aBytes) override {
        m_ullReceived += aBytes.size();
        if (m_ullReceived <= ECHO_BYTES)
            m_pChannel->Send(aBytes);
        if (m_ullReceived == ECHO_BYTES + BURST_BYTES)
            m_End.set_value(NowNs());
    }

    // Waits for the end of the burst.
    int64_t WaitForEnd() { return m_End.get_future().get(); }

private:
    uint64_t m_ullReceived = 0;
    std::promise<int64_t> m_End;
};

class CClientUser : public CUser {
public:
    void OnConnected(CChannel* aChannel) override {
        CUser::OnConnected(aChannel);
        aChannel->Send(MESSAGE);
    }

    void OnBytes(std::string_view aBytes) override {
        const uint64_t ullBefore = m_ullReceived;
        m_ullReceived += aBytes.size();
        if (m_ullReceived / MESSAGE_SIZE == ullBefore / MESSAGE_SIZE)
            return;
        if (m_ullReceived == WARM_UP * MESSAGE_SIZE)
            m_llEchoStart = NowNs();
        if (m_ullReceived == ECHO_BYTES)
            StartBurst();
        else
            m_pChannel->Send(MESSAGE);
    }

    void OnWritable() override {
        while (m_ullBurst < BURST && m_pChannel->Send(MESSAGE))
            ++m_ullBurst;
    }

    // Rates, after the server has seen the end.
    void Print(int64_t aEnd) const {
        CReport report;
        report.Add("round_trip", ROUND_TRIPS * 1e9 / static_cast<double>(m_llBurstStart - m_llEchoStart));
        report.Add("one_way", BURST * 1e9 / static_cast<double>(aEnd - m_llBurstStart));
        report.Print();
    }

private:
    void StartBurst() {
        m_llBurstStart = NowNs();
        OnWritable();
    }

    uint64_t m_ullReceived = 0;
    uint64_t m_ullBurst = 0;
    int64_t m_llEchoStart = 0;
    int64_t m_llBurstStart = 0;
};

// Applies back-pressure to the user while more than a limit is queued, as this library's proxies do by themselves.
class CPushBack {
public:
    // User's thread. false: wait until Done returns true.
    bool Take(size_t aSize) {
        if (m_nWaiting.load() + aSize > LIMIT) {
            m_bHeld = true;
            if (m_nWaiting.load() > LIMIT / 2 || !m_bHeld.exchange(false))
                return false;
        }
        m_nWaiting += aSize;
        return true;
    }

    // Network thread: aSize bytes were sent. True: the user can continue.
    bool Done(size_t aSize) { return m_nWaiting.fetch_sub(aSize) - aSize <= LIMIT / 2 && m_bHeld.exchange(false); }

private:
    static constexpr size_t LIMIT = 1 << 20;
    std::atomic<size_t> m_nWaiting{0};
    std::atomic<bool> m_bHeld{false};
};

}  // namespace bench
