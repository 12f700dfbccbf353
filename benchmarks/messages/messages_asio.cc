// Messages on Asio, a 4-byte length before each. The context runs in a thread of its own. The application's thread puts its
// messages into an outbox and posts if that was empty; received messages come back in an inbox in the same way. Each side waits
// for the other if its box exceeds a limit.
#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "benchmarks/messages/work.h"
#include "benchmarks/support/asio_loop.h"

namespace {

using asio::generic::stream_protocol;
using asio::ip::tcp;

constexpr size_t LIMIT = 1 << 20;
constexpr size_t READ = 65536;
constexpr uint32_t COPIED = 1024;
constexpr int ANY_CORE = -1;  // the caller of the program binds it

struct CMessage {
    explicit CMessage(uint32_t aSize) : m_dwLength(htonl(aSize)), m_dwSize(aSize), m_pBytes(new char[aSize]) {}

    uint32_t m_dwLength;  // in network byte order
    uint32_t m_dwSize;
    std::unique_ptr<char[]> m_pBytes;
};
using CMessages = std::vector<CMessage>;

// One direction between the two threads, with a limit.
class CBox {
public:
    // Waits for room. True: it was empty.
    bool Put(CMessage&& aMessage) {
        std::unique_lock lock(m_Mutex);
        m_Room.wait(lock, [this] { return m_nBytes <= LIMIT; });
        return Add(std::move(aMessage));
    }

    // Takes all messages; with aWait at least one. True: PutAll had filled it.
    bool TakeAll(CMessages& aMessages, bool aWait) {
        std::unique_lock lock(m_Mutex);
        if (aWait)
            m_Filled.wait(lock, [this] { return !m_Messages.empty(); });
        aMessages.swap(m_Messages);
        m_nBytes = 0;
        m_Room.notify_one();
        return std::exchange(m_bFull, false);
    }

    // Adds without waiting for room, and wakes a waiting TakeAll. False: it is full now.
    bool PutAll(CMessages& aMessages) {
        bool bWasEmpty = false;
        bool bFull = false;
        {
            const std::lock_guard guard(m_Mutex);
            for (CMessage& message : aMessages)
                bWasEmpty |= Add(std::move(message));
            m_bFull = bFull = m_nBytes > LIMIT;
        }
        aMessages.clear();
        if (bWasEmpty)
            m_Filled.notify_one();
        return !bFull;
    }

private:
    bool Add(CMessage&& aMessage) {
        m_nBytes += aMessage.m_dwSize;
        m_Messages.push_back(std::move(aMessage));
        return m_Messages.size() == 1;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Room;
    std::condition_variable m_Filled;
    CMessages m_Messages;  // under the mutex
    size_t m_nBytes = 0;   // under the mutex
    bool m_bFull = false;  // under the mutex; set by PutAll
};

class CEnd {
public:
    explicit CEnd(const bench::CMessageWork& aWork)
        : m_dwSize(static_cast<uint32_t>(aWork.m_nSize)), m_bPostEach(aWork.m_strType != "box") {
        stream_protocol::endpoint endpoint(tcp::endpoint(asio::ip::address_v4::loopback(), aWork.m_wPort));
        if (!aWork.m_strPath.empty())
            endpoint = asio::local::stream_protocol::endpoint(aWork.m_strPath);
        if (aWork.IsListener()) {
            asio::basic_socket_acceptor<stream_protocol> acceptor(m_Network.Get(), endpoint);
            bench::PrintReady();
            acceptor.accept(m_Socket);
        } else {
            m_Socket.connect(endpoint);
        }
        if (aWork.m_strPath.empty())
            m_Socket.set_option(tcp::no_delay(true));
        m_Network.Post([this] { Read(); });
    }

    // Application's thread.
    void Send(uint64_t aNumber) {
        CMessage message(m_dwSize);
        bench::FillMessage(message.m_pBytes.get(), m_dwSize, aNumber);
        if (!m_bPostEach) {
            if (m_Outbox.Put(std::move(message)))
                m_Network.Post([this] { Write(); });
            return;
        }
        for (size_t nWaiting; (nWaiting = m_nWaiting.load()) > LIMIT;)
            m_nWaiting.wait(nWaiting);
        m_nWaiting += m_dwSize;
        m_Network.Post([this, message = std::move(message)]() mutable {
            m_Posted.push_back(std::move(message));
            Write();
        });
    }

    // Application's thread.
    bench::CArrived Receive() {
        if (m_nTaken == m_Taken.size()) {
            m_Taken.clear();
            m_nTaken = 0;
            if (m_Inbox.TakeAll(m_Taken, true))
                m_Network.Post([this] { Read(); });
        }
        const CMessage message = std::move(m_Taken[m_nTaken++]);
        return {message.m_pBytes.get(), message.m_dwSize};
    }

private:
    // From here on in the network thread. One write at a time takes all queued messages.
    void Write() {
        if (!m_Writing.empty())
            return;
        if (m_bPostEach)
            m_Writing.swap(m_Posted);
        else
            m_Outbox.TakeAll(m_Writing, false);
        if (m_Writing.empty())
            return;
        Join();
        asio::async_write(m_Socket, m_Bufs, [this](std::error_code aError, size_t) {
            if (aError)
                std::_Exit(0);  // the peer has closed
            m_nWaiting -= m_Writing.size() * m_dwSize;
            m_nWaiting.notify_one();
            m_Writing.clear();
            Write();
        });
    }

    // Asio passes at most 16 buffers to one system call, so small messages are copied together.
    void Join() {
        m_Bufs.clear();
        m_Joined.clear();
        m_Joined.reserve(m_Writing.size() * (sizeof(uint32_t) + std::min(m_dwSize, COPIED)));
        for (const CMessage& message : m_Writing) {
            const char* pLength = reinterpret_cast<const char*>(&message.m_dwLength);
            m_Joined.insert(m_Joined.end(), pLength, pLength + sizeof(message.m_dwLength));
            if (message.m_dwSize <= COPIED) {
                m_Joined.insert(m_Joined.end(), message.m_pBytes.get(), message.m_pBytes.get() + message.m_dwSize);
                continue;
            }
            m_Bufs.push_back(asio::buffer(m_Joined.data() + m_Joined.size() - sizeof(uint32_t), sizeof(uint32_t)));
            m_Bufs.push_back(asio::buffer(message.m_pBytes.get(), message.m_dwSize));
        }
        if (m_Bufs.empty())
            m_Bufs.push_back(asio::buffer(m_Joined));
    }

    void Read() {
        m_Socket.async_read_some(asio::buffer(m_Buffer), [this](std::error_code aError, size_t aSize) {
            if (aError)
                std::_Exit(0);
            Cut(m_Buffer.data(), aSize);
            if (m_Arrived.empty() || m_Inbox.PutAll(m_Arrived))
                Read();  // otherwise when the inbox has been taken
        });
    }

    // Length and bytes of a message may be spread over any number of reads.
    void Cut(const char* aBytes, size_t aSize) {
        while (aSize > 0) {
            char* pTo = m_UnderWay ? m_UnderWay->m_pBytes.get() : reinterpret_cast<char*>(&m_dwLength);
            const size_t nWhole = m_UnderWay ? m_UnderWay->m_dwSize : sizeof(m_dwLength);
            const size_t nNow = std::min(aSize, nWhole - m_nHave);
            std::memcpy(pTo + m_nHave, aBytes, nNow);
            aBytes += nNow;
            aSize -= nNow;
            m_nHave += nNow;
            if (m_nHave < nWhole)
                return;
            m_nHave = 0;
            if (m_UnderWay)
                m_Arrived.push_back(std::move(*m_UnderWay));
            if (m_UnderWay)
                m_UnderWay.reset();
            else
                m_UnderWay.emplace(ntohl(m_dwLength));
        }
    }

    const uint32_t m_dwSize;
    const bool m_bPostEach;
    std::atomic<size_t> m_nWaiting{0};  // bytes posted and not written
    CBox m_Outbox;
    CBox m_Inbox;

    // Application's thread.
    CMessages m_Taken;
    size_t m_nTaken = 0;

    // Network thread.
    bench::CAsioLoop m_Network{ANY_CORE};
    stream_protocol::socket m_Socket{m_Network.Get()};
    CMessages m_Posted;
    CMessages m_Writing;
    std::vector<asio::const_buffer> m_Bufs;
    std::vector<char> m_Joined;
    std::array<char, READ> m_Buffer;
    CMessages m_Arrived;
    std::optional<CMessage> m_UnderWay;
    uint32_t m_dwLength = 0;
    size_t m_nHave = 0;  // of the length, or of the current message
};

}  // namespace

int main(int argc, char** argv) { return bench::RunMessageWork<CEnd>(argc, argv); }
