// Echo server on Asio, without its locks: answers in the read handler with a direct write; only the rest that the socket does
// not take is written asynchronously.
#include <array>
#include <asio.hpp>

#include "benchmarks/support/system.h"

namespace {

using asio::ip::tcp;

class CConnection {
public:
    explicit CConnection(tcp::socket aSocket) : m_Socket(std::move(aSocket)) {
        std::error_code ignored;
        m_Socket.set_option(tcp::no_delay(true), ignored);
        m_Socket.non_blocking(true, ignored);
        Read();
    }

private:
    void Read() {
        m_Socket.async_read_some(asio::buffer(m_Buffer), [this](std::error_code aError, size_t aSize) {
            if (aError)
                delete this;
            else
                Echo(aSize);
        });
    }

    void Echo(size_t aSize) {
        std::error_code error;
        const size_t nSent = m_Socket.write_some(asio::buffer(m_Buffer, aSize), error);
        if (error && error != asio::error::would_block) {
            delete this;
            return;
        }
        if (nSent == aSize)
            return Read();
        asio::async_write(m_Socket, asio::buffer(m_Buffer.data() + nSent, aSize - nSent),
                          [this](std::error_code aError, size_t) {
                              if (aError)
                                  delete this;
                              else
                                  Read();
                          });
    }

    tcp::socket m_Socket;
    std::array<char, 65536> m_Buffer;  // one for each connection, because a read is always pending
};

void Accept(tcp::acceptor& aAcceptor) {
    aAcceptor.async_accept([&aAcceptor](std::error_code aError, tcp::socket aSocket) {
        if (!aError)
            new CConnection(std::move(aSocket));
        Accept(aAcceptor);
    });
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    asio::io_context io(ASIO_CONCURRENCY_HINT_UNSAFE);
    tcp::acceptor acceptor(io, tcp::v4(), bench::ListenLoopback(bench::PortArgument(argc, argv)));
    Accept(acceptor);
    bench::PrintReady();
    io.run();
    return 0;
}
