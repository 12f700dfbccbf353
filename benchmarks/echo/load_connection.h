// The connections of the load program.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/echo/load_stream.h"
#include "benchmarks/support/histogram.h"

struct CLoadSettings {
    uint16_t m_wPort = 0;
    int m_Connections = 1;
    size_t m_nSize = 64;        // bytes of a message
    int m_InFlight = 1;         // messages in flight on each connection
    bool m_bReconnect = false;  // a new connection for every message
    int m_Busy = 0;  // the number of connections that continue; the others stop after their first message; 0: all continue
};

// The common counters of all connections.
struct CLoadCounters {
    uint64_t m_ullMessages = 0;
    uint64_t m_ullErrors = 0;
    bench::CHistogram m_Latencies;
};

// The bytes of all messages. Each message starts at another offset of the same noise, so that none has to be built.
class CPattern {
public:
    explicit CPattern(size_t aSize);
    const char* Message(uint64_t aNumber) const { return m_Bytes.data() + aNumber % SHIFTS; }

private:
    static constexpr size_t SHIFTS = 251;
    std::vector<char> m_Bytes;
};

class ILoadConnection {
public:
    ILoadConnection() = default;
    virtual ~ILoadConnection() = default;
    ILoadConnection(const ILoadConnection&) = delete;
    ILoadConnection& operator=(const ILoadConnection&) = delete;

    virtual int GetHandle() const = 0;
    virtual bool HasUnsent() const = 0;
    virtual bool HasAnswered() const = 0;

    // Connects, after closing the last connection, and sends the first messages. False: that failed, and an error was counted.
    virtual bool Start() = 0;
    virtual bool Flush() = 0;

    // Reads the available bytes, answers them with new messages and counts. False: the connection is over, after a counted
    // error or after its only message.
    virtual bool OnReadable(char* aBuffer, size_t aSize) = 0;
};

// Sends messages and compares every byte that comes back.
class CLoadConnection : public ILoadConnection {
public:
    CLoadConnection(const CLoadSettings& aSettings, const CPattern& aPattern, CLoadCounters& aCounters, int aIndex,
                    std::unique_ptr<CLoadStream> aStream);

    int GetHandle() const override { return m_pStream->GetHandle(); }
    bool HasUnsent() const override { return m_nOutSent < m_strOut.size(); }
    bool HasAnswered() const override { return m_ullReceived > 0; }
    bool Start() override;
    bool Flush() override;
    bool OnReadable(char* aBuffer, size_t aSize) override;

private:
    void QueueMessage(int64_t aNow);
    bool Compare(const char* aData, size_t aSize, int64_t aNow);
    bool Failed();

    const CLoadSettings& m_Settings;
    const CPattern& m_Pattern;
    CLoadCounters& m_Counters;
    const uint64_t m_ullFirst;  // number of this connection's first message
    const bool m_bGoesOn;
    const std::unique_ptr<CLoadStream> m_pStream;
    uint64_t m_ullSent = 0;
    uint64_t m_ullReceived = 0;
    size_t m_nOffset = 0;  // bytes of the current message that have come back
    std::string m_strOut;
    size_t m_nOutSent = 0;
    std::vector<int64_t> m_SendTimes;  // of the messages in flight, as a ring
};
