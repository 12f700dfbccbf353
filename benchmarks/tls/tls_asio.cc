// Echo server on Asio's TLS, without its locks. All writes are asynchronous: a synchronous one on a socket that does not block
// would lose sealed bytes.
#include <array>
#include <asio.hpp>
#include <asio/ssl.hpp>

#include "benchmarks/tls/server_arguments.h"

namespace {

using asio::ip::tcp;

class CConnection {
public:
    CConnection(tcp::socket aSocket, asio::ssl::context& aContext) : m_Stream(std::move(aSocket), aContext) {
        std::error_code ignored;
        m_Stream.next_layer().set_option(tcp::no_delay(true), ignored);
        m_Stream.async_handshake(asio::ssl::stream_base::server, [this](std::error_code aError) { GoOn(aError); });
    }

private:
    void GoOn(std::error_code aError) {
        if (aError)
            delete this;
        else
            Read();
    }

    void Read() {
        m_Stream.async_read_some(asio::buffer(m_Buffer), [this](std::error_code aError, size_t aSize) {
            if (!aError)
                Echo(aSize);
            else if (aError == asio::error::eof)
                m_Stream.async_shutdown([this](std::error_code) { delete this; });
            else
                delete this;
        });
    }

    void Echo(size_t aSize) {
        asio::async_write(m_Stream, asio::buffer(m_Buffer, aSize), [this](std::error_code aError, size_t) { GoOn(aError); });
    }

    asio::ssl::stream<tcp::socket> m_Stream;
    std::array<char, 16384> m_Buffer;  // one for each connection, because a read is always pending; a read has one record
};

void Accept(tcp::acceptor& aAcceptor, asio::ssl::context& aContext) {
    aAcceptor.async_accept([&aAcceptor, &aContext](std::error_code aError, tcp::socket aSocket) {
        if (!aError)
            new CConnection(std::move(aSocket), aContext);
        Accept(aAcceptor, aContext);
    });
}

}  // namespace

int main(int argc, char** argv) {
    const bench::CServerArguments arguments(argc, argv);
    bench::RaiseDescriptorLimit();
    asio::ssl::context context(asio::ssl::context::tls_server);
    context.use_certificate_chain_file(arguments.m_pChain);
    context.use_private_key_file(arguments.m_pKey, asio::ssl::context::pem);
    asio::io_context io(ASIO_CONCURRENCY_HINT_UNSAFE);
    tcp::acceptor acceptor(io, tcp::v4(), bench::ListenLoopback(arguments.m_wPort));
    Accept(acceptor, context);
    bench::PrintReady();
    io.run();
    return 0;
}
