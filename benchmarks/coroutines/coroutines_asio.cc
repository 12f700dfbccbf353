// Echo server on Asio by coroutines, without its locks.
#include <asio.hpp>
#include <vector>

#include "benchmarks/support/system.h"

namespace {

using asio::ip::tcp;

asio::awaitable<void> Echo(tcp::socket aSocket) {
    std::error_code error;
    aSocket.set_option(tcp::no_delay(true), error);
    auto token = asio::redirect_error(asio::use_awaitable, error);
    std::vector<char> buffer(64 * 1024);
    while (true) {
        const size_t nSize = co_await aSocket.async_read_some(asio::buffer(buffer), token);
        if (error)
            co_return;
        co_await asio::async_write(aSocket, asio::buffer(buffer.data(), nSize), token);
        if (error)
            co_return;
    }
}

asio::awaitable<void> Accept(tcp::acceptor& aAcceptor) {
    while (true) {
        tcp::socket accepted = co_await aAcceptor.async_accept(asio::use_awaitable);
        asio::co_spawn(aAcceptor.get_executor(), Echo(std::move(accepted)), asio::detached);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    asio::io_context io(ASIO_CONCURRENCY_HINT_UNSAFE);
    tcp::acceptor acceptor(io, tcp::v4(), bench::ListenLoopback(bench::PortArgument(argc, argv)));
    asio::co_spawn(io, Accept(acceptor), asio::detached);
    bench::PrintReady();
    io.run();
    return 0;
}
