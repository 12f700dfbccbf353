// Echo server on this library by coroutines, in its network thread.
#include "benchmarks/support/system.h"
#include "talvo/co.h"

namespace {

talvo::task<> Echo(talvo::connection aPeer) {
    aPeer.set(talvo::options::read_size, 64 * 1024);  // that of the servers on other libraries
    while (auto message = co_await aPeer.receive())
        co_await aPeer.send(*message);
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    talvo::application app;
    if (!app.listen("127.0.0.1:" + std::to_string(bench::PortArgument(argc, argv)), talvo::tcp, Echo))
        bench::Fail("listen");
    bench::PrintReady();
    return app.run_until_signal();
}
