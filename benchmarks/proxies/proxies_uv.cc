// The in-process echo on libuv: three loops, messages handed over in queues.
#include <array>
#include <memory>
#include <string>

#include "benchmarks/proxies/work.h"
#include "benchmarks/support/uv_loop.h"

namespace {

// Lives in the network thread, except Send and m_Outbox.
class CConnection : public bench::CChannel {
public:
    CConnection(bench::CUvLoop& aNetwork, bench::CUvLoop& aUserLoop, bench::CUser& aUser)
        : m_Network(aNetwork), m_UserLoop(aUserLoop), m_User(aUser) {
        uv_tcp_init(aNetwork.Get(), &m_Tcp);
        m_Tcp.data = this;
    }

    bool Send(std::string_view aMessage) override {
        if (!m_PushBack.Take(aMessage.size()))
            return false;
        bool bWasEmpty;
        {
            const std::lock_guard guard(m_Mutex);
            bWasEmpty = m_Outbox.empty();
            m_Outbox.emplace_back(aMessage);
        }
        if (bWasEmpty)
            m_Network.Post([this] { Write(); });
        return true;
    }

    uv_tcp_t* Tcp() { return &m_Tcp; }
    uv_stream_t* Stream() { return reinterpret_cast<uv_stream_t*>(&m_Tcp); }

    void Start() {
        uv_tcp_nodelay(&m_Tcp, 1);
        m_UserLoop.Post([this] { m_User.OnConnected(this); });
        uv_read_start(
            Stream(),
            [](uv_handle_t* aHandle, size_t, uv_buf_t* aBuf) {
                CConnection* pThis = static_cast<CConnection*>(aHandle->data);
                *aBuf = uv_buf_init(pThis->m_Buffer.data(), static_cast<unsigned>(pThis->m_Buffer.size()));
            },
            [](uv_stream_t* aStream, ssize_t aRead, const uv_buf_t* aBuf) {
                if (aRead > 0)
                    static_cast<CConnection*>(aStream->data)->HandUp({aBuf->base, static_cast<size_t>(aRead)});
            });
    }

private:
    void HandUp(std::string aBytes) {
        m_UserLoop.Post([this, strBytes = std::move(aBytes)] { m_User.OnBytes(strBytes); });
    }

    // One write at a time takes all queued messages.
    void Write() {
        if (!m_Writing.empty())
            return;
        {
            const std::lock_guard guard(m_Mutex);
            m_Writing.swap(m_Outbox);
        }
        if (m_Writing.empty())
            return;
        m_Bufs.clear();
        for (std::string& strMessage : m_Writing)
            m_Bufs.push_back(uv_buf_init(strMessage.data(), static_cast<unsigned>(strMessage.size())));
        uv_write(&m_Write, Stream(), m_Bufs.data(), static_cast<unsigned>(m_Bufs.size()),
                 [](uv_write_t* aWrite, int) { static_cast<CConnection*>(aWrite->handle->data)->OnWritten(); });
    }

    void OnWritten() {
        size_t nSize = 0;
        for (const std::string& strMessage : m_Writing)
            nSize += strMessage.size();
        m_Writing.clear();
        if (m_PushBack.Done(nSize))
            m_UserLoop.Post([this] { m_User.OnWritable(); });
        Write();
    }

    bench::CUvLoop& m_Network;
    bench::CUvLoop& m_UserLoop;
    bench::CUser& m_User;
    bench::CPushBack m_PushBack;
    uv_tcp_t m_Tcp;
    uv_write_t m_Write;
    std::array<char, 16384> m_Buffer;
    std::mutex m_Mutex;
    std::vector<std::string> m_Outbox;  // under the mutex
    std::vector<std::string> m_Writing;
    std::vector<uv_buf_t> m_Bufs;
};

// Network thread.
class CListener {
public:
    explicit CListener(CConnection& aAccepted) : m_Accepted(aAccepted) { m_Tcp.data = this; }

    uint16_t Listen(uv_loop_t* aLoop) {
        const sockaddr_in any = bench::LoopbackAddress(0);
        uv_tcp_init(aLoop, &m_Tcp);
        uv_tcp_bind(&m_Tcp, reinterpret_cast<const sockaddr*>(&any), 0);
        const int rv = uv_listen(reinterpret_cast<uv_stream_t*>(&m_Tcp), 1, [](uv_stream_t* aServer, int) {
            CConnection& accepted = static_cast<CListener*>(aServer->data)->m_Accepted;
            if (uv_accept(aServer, accepted.Stream()) == 0)
                accepted.Start();
        });
        sockaddr_in addr{};
        int nSize = sizeof(addr);
        if (rv != 0 || uv_tcp_getsockname(&m_Tcp, reinterpret_cast<sockaddr*>(&addr), &nSize) != 0)
            bench::Fail("listen");
        return ntohs(addr.sin_port);
    }

private:
    CConnection& m_Accepted;
    uv_tcp_t m_Tcp;
};

}  // namespace

int main() {
    bench::CServerUser server;
    bench::CClientUser client;
    bench::CUvLoop network(bench::NETWORK_CORE), serverLoop(bench::USER_CORE), clientLoop(bench::USER_CORE);
    std::unique_ptr<CConnection> pServer, pClient;
    std::unique_ptr<CListener> pListener;
    uv_connect_t connect;
    network.Post([&] {
        pServer = std::make_unique<CConnection>(network, serverLoop, server);
        pClient = std::make_unique<CConnection>(network, clientLoop, client);
        pListener = std::make_unique<CListener>(*pServer);
        const sockaddr_in addr = bench::LoopbackAddress(pListener->Listen(network.Get()));
        uv_tcp_connect(&connect, pClient->Tcp(), reinterpret_cast<const sockaddr*>(&addr),
                       [](uv_connect_t* aConnect, int) { static_cast<CConnection*>(aConnect->handle->data)->Start(); });
    });
    client.Print(server.WaitForEnd());
    return 0;
}
