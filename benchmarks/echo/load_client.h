// The loop of the load program: bare epoll over all connections, in one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "benchmarks/echo/load_connection.h"

// Makes connection number aIndex. The arguments outlive it.
using CLoadConnectionMaker = std::function<std::unique_ptr<ILoadConnection>(
    const CLoadSettings& aSettings, const CPattern& aPattern, CLoadCounters& aCounters, int aIndex)>;

class CLoadClient {
public:
    CLoadClient(const CLoadSettings& aSettings, CLoadConnectionMaker aMake);
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
    void Watch(int aOperation, ILoadConnection& aConnection, uint32_t aEvents);
    void StartConnection(ILoadConnection& aConnection);
    void Turn(int aWaitMs);
    void Dispatch(ILoadConnection& aConnection, uint32_t aEvents);

    CLoadSettings m_Settings;
    CLoadConnectionMaker m_Make;
    CPattern m_Pattern;
    CLoadCounters m_Counters;
    std::vector<std::unique_ptr<ILoadConnection>> m_Connections;
    std::vector<char> m_Buffer;
    int m_Epoll;
};
