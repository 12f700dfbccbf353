// The loop of the load program: bare epoll over all connections, in one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "benchmarks/echo/load_connection.h"

class CLoadClient {
public:
    explicit CLoadClient(const CLoadSettings& aSettings);
    ~CLoadClient();
    CLoadClient(const CLoadClient&) = delete;
    CLoadClient& operator=(const CLoadClient&) = delete;

    // Opens all connections.
    void Start();

    // Runs for aNs, or until aMessages (0: no limit) have come back, counted from now on. Returns the elapsed nanoseconds.
    int64_t Run(int64_t aNs, uint64_t aMessages);

    // Runs until a message has come back, or has failed, on every connection: the server has accepted all of them then.
    void Settle();

    const CLoadCounters& GetCounters() const { return m_Counters; }

private:
    void Watch(int aOperation, CLoadConnection& aConnection, uint32_t aEvents);
    void StartConnection(CLoadConnection& aConnection);
    void Turn(int aWaitMs);
    void Dispatch(CLoadConnection& aConnection, uint32_t aEvents);

    CLoadSettings m_Settings;
    CPattern m_Pattern;
    CLoadCounters m_Counters;
    std::vector<std::unique_ptr<CLoadConnection>> m_Connections;
    std::vector<char> m_Buffer;
    int m_Epoll;
};
