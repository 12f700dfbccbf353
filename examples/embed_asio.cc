// The library inside the loop of asio: one thread, timers of asio and connections of the library.
#include <asio.hpp>
#include <cstdio>

#include "talvo/callbacks.h"

// Runs a reactor in an io_context, until StopEventLoop, which stops the io_context.
class ReactorInAsio {
public:
    ReactorInAsio(asio::io_context& aContext, ICmEmbeddedLoop& aLoop)
        : m_Context(aContext), m_Loop(aLoop), m_Handle(aContext, aLoop.GetPollHandle()), m_Timer(aContext) {
        Watch();
        Turn();
    }
    ~ReactorInAsio() { m_Handle.release(); }  // the reactor closes it

private:
    void Watch() {
        m_Handle.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& aError) {
            if (aError)
                return;
            Turn();
            Watch();
        });
    }
    void Turn() {
        if (m_Loop.RunOnce() != CM_OK)
            return m_Context.stop();
        const int nWait = m_Loop.GetTimeout();
        m_Timer.expires_after(std::chrono::milliseconds(nWait));  // ends the wait before this one
        if (nWait < 0)
            return;
        m_Timer.async_wait([this](const asio::error_code& aError) {
            if (!aError)
                Turn();
        });
    }

    asio::io_context& m_Context;
    ICmEmbeddedLoop& m_Loop;
    asio::posix::stream_descriptor m_Handle;
    asio::steady_timer m_Timer;
};

int main() {
    talvo::application app;
    const auto bound = app.listen("127.0.0.1:0", talvo::package, [](talvo::connection& aPeer) {
        aPeer.on_receive([](talvo::connection& aSelf, const talvo::received& aData) { aSelf.send(aData); });
    });
    if (!bound)
        return 1;
    int nAnswers = 0;
    talvo::connection client = app.connect(bound->to_string(), talvo::package);
    client.on_open([](talvo::connection& aSelf) { aSelf.send("hello"); });
    asio::io_context context;
    asio::steady_timer pause(context);
    client.on_receive([&](const talvo::received& aData) {
        std::printf("answer %d: %s\n", ++nAnswers, aData.str().c_str());
        if (nAnswers == 3)
            return app.stop();
        pause.expires_after(std::chrono::milliseconds(20));
        pause.async_wait([&](const asio::error_code&) { client.send("hello again"); });
    });
    const ReactorInAsio reactor(context, *app.embedded_loop());
    context.run();
    return nAnswers == 3 ? 0 : 1;
}
