// Forwards connections to another address, bytes both ways, as coroutines:   co_proxy LISTEN TARGET
#include <cstdio>

#include "talvo/co.h"

// Passes the end of one side on, and goes on until the other side has ended, too. After a failure both connections end.
talvo::task<> copy(talvo::connection& from, talvo::connection& to) {
    while (true) {
        const auto bytes = co_await from.receive();
        const bool done = bytes && co_await to.send(*bytes);
        if (done)
            continue;
        if (bytes || bytes.error()) {
            from.close();
            to.close();
        }
        to.end_sending();
        co_return;
    }
}

talvo::task<> forward(talvo::connection client, std::string target) {
    auto server = co_await talvo::connect(target, talvo::tcp);
    if (server)
        co_await talvo::when_all(copy(client, *server), copy(*server, client));
}

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: co_proxy LISTEN TARGET\n");
        return 2;
    }
    talvo::application app;
    const auto serve = [target = std::string(argv[2])](talvo::connection client) { return forward(std::move(client), target); };
    if (const auto bound = app.listen(argv[1], talvo::tcp, serve))
        std::printf("listening on %s\n", bound->to_string().c_str());
    std::fflush(stdout);
    return app.run_until_signal();
}
