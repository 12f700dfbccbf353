// Echo server on this library by lambdas, in its network thread.
#include "benchmarks/support/system.h"
#include "talvo/callbacks.h"

namespace {

void Serve(talvo::connection& aPeer) {
    aPeer.set(talvo::options::read_size, 64 * 1024);  // that of the servers on other libraries
    aPeer.on_receive([](talvo::connection& aSelf, const talvo::received& aData) {
        aSelf.send(aData);
        if (aSelf.is_full())
            aSelf.pause();
    });
    aPeer.on_send([](talvo::connection& aSelf) { aSelf.resume(); });
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    talvo::application app;
    if (!app.listen("127.0.0.1:" + std::to_string(bench::PortArgument(argc, argv)), talvo::tcp, Serve))
        bench::Fail("listen");
    bench::PrintReady();
    return app.run();
}
