// The in-process echo on Asio: three contexts, messages handed over with post.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/proxies/work.h"
#include "benchmarks/support/asio_loop.h"

namespace {

using asio::ip::tcp;

// Lives in the network thread, except Send.
class CConnection : public bench::CChannel {
public:
    CConnection(bench::CAsioLoop& aNetwork, bench::CAsioLoop& aUserLoop, bench::CUser& aUser)
        : m_Network(aNetwork), m_UserLoop(aUserLoop), m_User(aUser), m_Socket(aNetwork.Get()) {}

    bool Send(std::string_view aMessage) override {
        if (!m_PushBack.Take(aMessage.size()))
            return false;
        m_Network.Post([this, strMessage = std::string(aMessage)]() mutable {
            m_Outbox.push_back(std::move(strMessage));
            Write();
        });
        return true;
    }

    tcp::socket& Socket() { return m_Socket; }

    void Start() {
        m_Socket.set_option(tcp::no_delay(true));
        m_UserLoop.Post([this] { m_User.OnConnected(this); });
        Read();
    }

private:
    void Read() {
        m_Socket.async_read_some(asio::buffer(m_Buffer), [this](std::error_code aError, size_t aSize) {
            if (aError)
                return;
            m_UserLoop.Post([this, strBytes = std::string(m_Buffer.data(), aSize)] { m_User.OnBytes(strBytes); });
            Read();
        });
    }

    // One write at a time takes all queued messages.
    void Write() {
        if (!m_Writing.empty() || m_Outbox.empty())
            return;
        m_Writing.swap(m_Outbox);
        m_Bufs.clear();
        for (const std::string& strMessage : m_Writing)
            m_Bufs.push_back(asio::buffer(strMessage));
        asio::async_write(m_Socket, m_Bufs, [this](std::error_code, size_t aSize) {
            m_Writing.clear();
            if (m_PushBack.Done(aSize))
                m_UserLoop.Post([this] { m_User.OnWritable(); });
            Write();
        });
    }

    bench::CAsioLoop& m_Network;
    bench::CAsioLoop& m_UserLoop;
    bench::CUser& m_User;
    bench::CPushBack m_PushBack;
    tcp::socket m_Socket;
    std::array<char, 16384> m_Buffer;
    std::vector<std::string> m_Outbox;
    std::vector<std::string> m_Writing;
    std::vector<asio::const_buffer> m_Bufs;
};

}  // namespace

int main() {
    bench::CServerUser server;
    bench::CClientUser client;
    bench::CAsioLoop network(bench::NETWORK_CORE), serverLoop(bench::USER_CORE), clientLoop(bench::USER_CORE);
    auto pServer = std::make_unique<CConnection>(network, serverLoop, server);
    auto pClient = std::make_unique<CConnection>(network, clientLoop, client);
    tcp::acceptor acceptor(network.Get(), tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    network.Post([&] {
        acceptor.async_accept(pServer->Socket(), [&](std::error_code) { pServer->Start(); });
        pClient->Socket().async_connect(acceptor.local_endpoint(), [&](std::error_code) { pClient->Start(); });
    });
    client.Print(server.WaitForEnd());
    std::_Exit(0);  // objects in the contexts would have to be closed in their threads
}
