// The frame of a program with callbacks.
#pragma once

#include <string>
#include <vector>

#include "talvo/callbacks/listener.h"
#include "talvo/callbacks/loop.h"
#include "talvo/co/main_thread.h"

namespace talvo {
inline namespace callbacks {

// Starts the library in the main thread, runs its loop, and ends everything in order. The first object of main, and the only
// one. Use it in the main thread, except stop, post, call and main_loop, which are for any thread while it lives.
//
// In a thread that is the library's main thread already, a simulated one for example, it uses that thread and does not end it.
// Connections, listeners and timers may outlive the application: they have ended then.
class application final {
public:
    // Starts the library; error() says whether that has worked.
    explicit application(const application_settings& settings = {}) : main_(settings) {
        if (main_.code() == CM_OK)
            loop_ = loop::current();
    }
    application(const application&) = delete;
    application& operator=(const application&) = delete;
    // Drains, unless run has done so, and ends the threads of the library.
    ~application() {
        if (main_.code() == CM_OK && !drained_)
            main_.drain();
    }

    // Why it has not started: every other operation then fails with it. CM_ERROR_ALREADY_INITIALIZED: another application
    // exists, or another thread is the library's main thread. CM_ERROR_NOT_AVAILABLE: a thread is older than the application
    // and does not block the signals.
    std::error_code error() const noexcept {
        return make_error_code(main_.code() != CM_OK ? main_.code() : main_.signal_code());
    }
    explicit operator bool() const noexcept { return !error(); }

    // Calls accept(connection&) for each connection, see listener::listen, until the end of the application. Gives the bound
    // address. A failure concerns this listen only, but see run.
    template <class Function>
    result<address> listen(std::string_view at, kind type, Function accept, const listen_options& options = {}) {
        if (error())
            return error();
        listener added;
        if (const std::error_code failed = added.listen(at, type, std::move(accept), options)) {
            failure_ = "cannot listen on " + std::string(at) + ": " + failed.message();
            return failed;
        }
        listeners_.push_back(std::move(added));
        return listeners_.back().local_address();
    }
    // As talvo::connect. If the application has not started, the connection has ended with error() at the return.
    connection connect(std::string_view to, kind type, const connect_options& options = {}) {
        has_connected_ = true;
        return error() ? impl::maker::ended(error()) : callbacks::connect(to, type, options);
    }

    // Runs the loop until stop, SIGINT or SIGTERM, and then drains: listeners stop, each connection ends with
    // CM_ERROR_NETWORK_SOCKET_CLOSE behind its data, and its on_end is called. Gives the status of stop, and 0 after a signal.
    // Another signal during the drain ends the process at once. Gives 1 at once, with a line on stderr: the application has not
    // started; or a listen has failed, no other one has succeeded, and connect was not called.
    int run() {
        if (error())
            return main_.fail(main_.failure());
        if (!failure_.empty() && listeners_.empty() && !has_connected_)
            return main_.fail(failure_);
        drained_ = false;
        main_.run(0);
        main_.drain();
        drained_ = true;
        return main_.take_status();
    }
    int run_until_signal() { return run(); }

    // Ends the loop; a loop that does not run yet ends as soon as it starts. The first status counts, and a call during the
    // drain has no effect. Any thread.
    void stop(int status = 0) { main_.stop(status); }

    // The main thread's loop. Any thread.
    loop main_loop() const { return loop_; }
    // As those of loop. Any thread.
    template <class Function>
    std::error_code post(Function function) const {
        return loop_.post(std::move(function));
    }
    template <class Function>
    auto call(Function&& function) const {
        return loop_.call(std::forward<Function>(function));
    }

    // For a program whose own loop runs the library instead of run: docs/embedding.md. stop and the signals end RunOnce with
    // CM_ERROR_NOT_AVAILABLE. Null: the application has not started.
    ICmEmbeddedLoop* embedded_loop() const { return error() ? nullptr : main_.embedded_loop(); }

private:
    talvo::detail::main_thread main_;
    loop loop_;
    std::string failure_;  // of the last listen that failed
    bool has_connected_ = false;
    bool drained_ = false;
    std::vector<listener> listeners_;
};

}  // namespace callbacks
}  // namespace talvo
