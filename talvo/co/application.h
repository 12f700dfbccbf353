// The frame of a program.
#pragma once

#include <memory>
#include <vector>

#include "talvo/co/http_server.h"
#include "talvo/co/listener.h"
#include "talvo/co/main_thread.h"

namespace talvo {

// Starts the library in the main thread, runs its loop, and ends everything in order. The first object of main, and the only
// one: a second one in the process is refused. Use it in the main thread; stop and the stop token are for any thread.
//
// In a thread that is the library's main thread already, a simulated one for example, the application uses it and does not end
// it. In a CCmSimNetwork no signal arrives, and the loop also ends when nothing is left to happen.
class application final {
public:
    // A failure is the error of error() and of run.
    explicit application(const application_settings& settings = {}) : main_(settings) {}
    application(const application&) = delete;
    application& operator=(const application&) = delete;
    // Cancels all tasks, and ends the threads of the library. Drains before, if another loop has run this one.
    ~application() {
        if (embedded_)
            end_work();
    }

    // Why the application has not started: every other operation then fails with it. CM_ERROR_ALREADY_INITIALIZED: another
    // application exists, or another thread is the library's main thread.
    std::error_code error() const noexcept { return make_error_code(main_.code()); }
    explicit operator bool() const noexcept { return !error(); }

    // Runs serve for each connection, see listener::listen. Gives the bound address. A failure concerns this listen only; an
    // application without other work does not run after it, see run_until_signal.
    result<address> listen(std::string_view at, kind type, listener::handler serve, const listen_options& options = {}) {
        return listen_with(listeners_, at, type, std::move(serve), options);
    }
    // The same for an HTTP server, see http::server.
    result<address> listen(std::string_view at, http::router routes, const http::server_options& options = {}) {
        return listen_with(servers_, at, std::move(routes), options);
    }
    // As talvo::connect. It gives error() if the application has not started, also where talvo::connect could connect.
    auto connect(std::string_view to, kind type, const connect_options& options = {}) {
        return detail::connect_awaiter(error() ? result<address>(error()) : address::parse(to), type, options);
    }
    auto connect(std::string_view to, kind type, const connect_options& options, std::stop_token token) {
        return with_stop(std::move(token), connect(to, type, options));
    }

    // Runs a task until it ends or the application does. Starts it at once. An application that has not started destroys it.
    void spawn(task<> work) {
        if (*this)
            tasks_.spawn(std::move(work));
    }

    // Gets the exceptions of detached tasks: of spawn, and of the coroutines of listeners. Must not throw. Without it each is a
    // line on stderr. The other tasks continue.
    void on_exception(std::function<void(std::exception_ptr)> handler) { handler_ = std::move(handler); }

    // Runs the loop until SIGINT, SIGTERM or stop(), and then drains: listeners stop, receive() of each connection fails with
    // CM_ERROR_NETWORK_SOCKET_CLOSE, and data that was taken is delivered. Then it cancels the tasks that are left. Another
    // signal during the drain ends the process. Gives 0 after a signal, and the status of stop(). 1 at once, with a line on
    // stderr: the application has not started; or listen has failed and nothing else runs; or a thread does not block the
    // signals because it is older than the application.
    int run_until_signal() {
        if (!main_.failure().empty())
            return main_.fail(main_.failure());
        if (!failure_.empty() && !has_work())
            return main_.fail(failure_);
        return run_loop(0);
    }

    // Runs the loop until the task ends, and then drains likewise. Gives its value; 1 after an exception, which is reported,
    // and if the application has not started; 128 and the number of the signal after SIGINT or SIGTERM, which cancel the task.
    // If a thread does not block the signals, they keep their default effect.
    int run(task<int> work) {
        if (error())
            return main_.fail(main_.failure());
        tasks_.spawn(finish(std::move(work)));
        return run_loop(128);
    }
    int run(task<> work) { return run(succeed(std::move(work))); }

    // Ends the loop; a loop that does not run yet ends as soon as it starts. The first status counts, and a call during the
    // drain has no effect. Any thread, while the application lives. No effect if the application has not started: the loop may
    // be another one's.
    void stop(int status = 0) { main_.stop(status); }

    // For a program whose own loop runs the library instead of run: docs/embedding.md. stop and the signals end RunOnce with
    // CM_ERROR_NOT_AVAILABLE; the destruction of the application then drains as run does. Null: it has not started.
    ICmEmbeddedLoop* embedded_loop() {
        embedded_ = !error();
        return main_.embedded_loop();
    }

    // A stop is requested when the loop ends, before the drain.
    std::stop_token stop_token() const { return tasks_.stop_token(); }

private:
    template <class Listener, class... Arguments>
    result<address> listen_with(std::vector<std::unique_ptr<Listener>>& all, std::string_view at, Arguments&&... arguments) {
        if (error())
            return error();
        auto added = std::make_unique<Listener>([this](std::exception_ptr failed) { report(std::move(failed)); });
        const auto done = added->listen(at, std::forward<Arguments>(arguments)...);
        if (!done) {
            const CCmFailure& cause = added->failure();
            failure_ = "cannot listen on " + std::string(at) + ": " + (cause ? cause.GetText() : done.error().message());
            return done.error();
        }
        all.push_back(std::move(added));
        return all.back()->local_address();
    }

    int run_loop(int signal_base) {
        main_.run(signal_base);
        end_work();
        return main_.take_status();
    }

    void end_work() {
        tasks_.request_stop();
        main_.drain();
        tasks_.cancel();
        listeners_.clear();
        servers_.clear();
        embedded_ = false;
    }

    task<> finish(task<int> work) {
        int status = 1;
        try {
            status = co_await work;
        } catch (...) {
            report(std::current_exception());
        }
        stop(status);
    }
    static task<int> succeed(task<> work) {
        co_await work;
        co_return 0;
    }

    void report(std::exception_ptr failed) {
        if (handler_)
            return handler_(std::move(failed));
        try {
            std::rethrow_exception(std::move(failed));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "talvo: a task has failed: %s\n", error.what());
        } catch (...) {
            std::fputs("talvo: a task has failed\n", stderr);
        }
    }

    bool has_work() const { return !listeners_.empty() || !servers_.empty() || tasks_.size() > 0; }

    detail::main_thread main_;
    std::string failure_;  // of the last listen that failed
    bool embedded_ = false;
    std::function<void(std::exception_ptr)> handler_;
    std::vector<std::unique_ptr<listener>> listeners_;
    std::vector<std::unique_ptr<http::server>> servers_;
    task_group tasks_{[this](std::exception_ptr failed) { report(std::move(failed)); }};
};

}  // namespace talvo
