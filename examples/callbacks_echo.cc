// Sends all messages back:   callbacks_echo [ADDRESS]
#include <cstdio>

#include "talvo/callbacks.h"

int main(int argc, char** argv) {
    talvo::application app;
    const auto bound = app.listen(argc > 1 ? argv[1] : "[::]:7000", talvo::package, [](talvo::connection& peer) {
        peer.on_receive([](talvo::connection& self, const talvo::received& data) {
            self.send(data);
            if (self.is_full())
                self.pause();
        });
        peer.on_send([](talvo::connection& self) { self.resume(); });
    });
    if (bound)
        std::printf("listening on %s\n", bound->to_string().c_str());
    std::fflush(stdout);
    return app.run_until_signal();  // SIGINT, SIGTERM: drains, then ends
}
