// Sends every message of its clients back, as coroutines:   co_echo [ADDRESS]
#include <cstdio>

#include "talvo/co.h"

talvo::task<> echo(talvo::connection peer) {
    while (auto message = co_await peer.receive())  // empty at the peer's orderly end
        co_await peer.send(*message);               // resumes when it was taken: that is all of the back-pressure
}

int main(int argc, char** argv) {
    talvo::application app;
    if (const auto bound = app.listen(argc > 1 ? argv[1] : "[::]:7000", talvo::package, echo))
        std::printf("listening on %s\n", bound->to_string().c_str());
    std::fflush(stdout);
    return app.run_until_signal();  // SIGINT, SIGTERM: drains, then ends
}
