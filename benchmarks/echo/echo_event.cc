// Echo server on libevent's bufferevents, the usual style of its users. A high-water mark on the output buffer applies
// back-pressure to a client that does not read.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <csignal>

#include "benchmarks/support/system.h"

namespace {

constexpr size_t MOST_WAITING = 256 * 1024;

void Echo(bufferevent* aConnection) {
    bufferevent_write_buffer(aConnection, bufferevent_get_input(aConnection));
    if (evbuffer_get_length(bufferevent_get_output(aConnection)) > MOST_WAITING)
        bufferevent_disable(aConnection, EV_READ);
}

void OnConnection(evconnlistener* aListener, evutil_socket_t aFd, sockaddr*, int, void*) {
    bench::SetNoDelay(aFd);
    bufferevent* pConnection = bufferevent_socket_new(evconnlistener_get_base(aListener), aFd, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(
        pConnection, [](bufferevent* aConnection, void*) { Echo(aConnection); },
        [](bufferevent* aConnection, void*) { bufferevent_enable(aConnection, EV_READ); },
        [](bufferevent* aConnection, short, void*) { bufferevent_free(aConnection); }, nullptr);
    bufferevent_enable(pConnection, EV_READ | EV_WRITE);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // libevent writes to connections that clients have closed
    bench::RaiseDescriptorLimit();
    event_base* pBase = event_base_new();
    const int listener = bench::ListenLoopback(bench::PortArgument(argc, argv));
    if (!evconnlistener_new(pBase, OnConnection, nullptr, LEV_OPT_CLOSE_ON_EXEC, 0, listener))
        bench::Fail("evconnlistener_new");
    bench::PrintReady();
    return event_base_dispatch(pBase);
}
