// The frame of a program.
#pragma once

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

#include "talvo/co/http_server.h"
#include "talvo/co/listener.h"
#include "talvo/event/signal_handler.h"
#include "talvo/event/thread.h"

namespace talvo {

// How an application runs.
struct application_settings {
    // Sockets are served by the main thread, without a hand-over. true: by a thread of their own, for a program whose main
    // thread also computes.
    bool own_network_thread = false;
    // The longest time that a drain may take; 0: LingerSeconds of the configuration, 30 s.
    std::chrono::nanoseconds drain_time{0};
};

// Starts the library in the main thread, runs its loop, and ends everything in order. The first object of main, and the only
// one: a second one in the process is refused. Use it in the main thread; stop and the stop token are for any thread.
//
// In a thread that is the library's main thread already, a simulated one for example, the application uses it and does not end
// it. In a CCmSimNetwork no signal arrives, and the loop also ends when nothing is left to happen.
class application final : private ICmSignalSink {
public:
    // A failure is the error of error() and of run.
    explicit application(application_settings settings = {}) : settings_(settings) {
        error_ = make_error_code(start());
        if (error_)
            note("cannot start: " + error_.message());
    }
    application(const application&) = delete;
    application& operator=(const application&) = delete;
    // Cancels all tasks, and ends the threads of the library.
    ~application() override {
        tasks_.cancel();
        listeners_.clear();
        servers_.clear();
        signals_.Close();
        if (state_ == state::owns_library)
            end_library();
        if (state_ != state::refused)
            exists_ = false;
    }

    // Why the application has not started: every other operation then fails with it. CM_ERROR_ALREADY_INITIALIZED: another
    // application exists, or another thread is the library's main thread.
    std::error_code error() const noexcept { return error_; }
    explicit operator bool() const noexcept { return !error_; }

    // Runs serve for each connection, see listener::listen. Gives the bound address. An application whose only listener has
    // failed does not run, see run_until_signal.
    result<address> listen(std::string_view at, kind type, listener::handler serve, const listen_options& options = {}) {
        return listen_with(listeners_, at, type, std::move(serve), options);
    }
    // The same for an HTTP server, see http::server.
    result<address> listen(std::string_view at, http::router routes, const http::server_options& options = {}) {
        return listen_with(servers_, at, std::move(routes), options);
    }
    // As talvo::connect.
    auto connect(std::string_view to, kind type, const connect_options& options = {}) {
        return talvo::connect(to, type, options);
    }

    // Runs a task until it ends or the application does. Starts it at once. An application that has not started destroys it.
    void spawn(task<> work) {
        if (state_ != state::refused)
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
        if (!error_ && open_signals() != CM_OK)
            return fail("cannot receive signals: a thread does not block them");
        if (error_ || (!failure_.empty() && !has_work()))
            return fail(failure_);
        return run_loop(0);
    }

    // Runs the loop until the task ends, and then drains likewise. Gives its value; 1 after an exception, which is reported,
    // and if the application has not started; 128 and the number of the signal after SIGINT or SIGTERM, which cancel the task.
    int run(task<int> work) {
        if (error_)
            return fail(failure_);
        open_signals();
        tasks_.spawn(finish(std::move(work)));
        return run_loop(128);
    }
    int run(task<> work) { return run(succeed(std::move(work))); }

    // Ends the loop; a loop that does not run yet ends as soon as it starts. Any thread, while the application lives. No effect
    // if the application has not started: the loop may be another one's.
    void stop(int status = 0) {
        if (state_ == state::refused)
            return;
        status_ = status;
        reactor().StopEventLoop();
    }

    // A stop is requested when the loop ends, before the drain.
    std::stop_token stop_token() const { return tasks_.stop_token(); }

private:
    template <class Listener, class... Arguments>
    result<address> listen_with(std::vector<std::unique_ptr<Listener>>& all, std::string_view at, Arguments&&... arguments) {
        if (error_)
            return error_;
        auto added = std::make_unique<Listener>([this](std::exception_ptr failed) { report(std::move(failed)); });
        const auto done = added->listen(at, std::forward<Arguments>(arguments)...);
        if (!done) {
            const CCmFailure& cause = added->failure();
            note("cannot listen on " + std::string(at) + ": " + (cause ? cause.GetText() : done.error().message()));
            return done.error();
        }
        all.push_back(std::move(added));
        return all.back()->local_address();
    }

    enum class state { refused, uses_library, owns_library };

    CmResult start() {
        if (exists_.exchange(true))
            return CM_ERROR_ALREADY_INITIALIZED;
        state_ = state::uses_library;
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        if (CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_MAIN))
            return CM_OK;
        CCmSignalHandler::Block(SIGNALS);  // before the first thread; open_signals reports a late block
        manager.SetNetworkThreadMode(settings_.own_network_thread ? CCmThreadManager::NETWORK_THREAD_OWN
                                                                  : CCmThreadManager::NETWORK_THREAD_MAIN);
        const CmResult code = manager.InitMainThread(0, nullptr);
        if (code != CM_OK)
            return code;
        state_ = state::owns_library;
        return CCmConnectionManager::Instance() ? CM_OK : CM_ERROR_UNEXPECTED;
    }

    static void end_library() {
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        manager.StopAllThreads(nullptr);
        manager.JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        if (ACmThread* const thread = manager.GetThread(CCmThreadManager::TT_MAIN))
            thread->Destory(CM_OK);
    }

    static ICmReactor& reactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

    CmResult open_signals() {
        if (state_ != state::owns_library || signals_.IsOpen())
            return CM_OK;
        return signals_.Open(&reactor(), SIGNALS, this);
    }

    int run_loop(int signal_base) {
        signal_base_ = signal_base;
        reactor().RunEventLoop();
        draining_ = true;
        tasks_.request_stop();
        drain();
        draining_ = false;
        tasks_.cancel();
        listeners_.clear();
        servers_.clear();
        return status_.exchange(0);
    }

    void drain() {
        CCmTimeValue limit = detail::time_of(settings_.drain_time);
        CCmConnectionManager::Instance()->Drain(settings_.drain_time.count() > 0 ? &limit : nullptr);
    }

    void OnSignal(int signal) override {
        if (draining_)
            std::_Exit(128 + signal);
        stop(signal_base_ == 0 ? 0 : signal_base_ + signal);
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
    static int fail(const std::string& failure) {
        std::fprintf(stderr, "talvo: %s\n", failure.c_str());
        return 1;
    }
    void note(std::string failure) { failure_ = std::move(failure); }

    static constexpr int SIGNALS[] = {SIGINT, SIGTERM};
    static inline std::atomic<bool> exists_{false};

    application_settings settings_;
    state state_ = state::refused;
    std::error_code error_;
    std::string failure_;  // the last one of start() and listen()
    std::atomic<int> status_{0};
    int signal_base_ = 0;
    bool draining_ = false;
    std::function<void(std::exception_ptr)> handler_;
    CCmSignalHandler signals_;
    std::vector<std::unique_ptr<listener>> listeners_;
    std::vector<std::unique_ptr<http::server>> servers_;
    task_group tasks_{[this](std::exception_ptr failed) { report(std::move(failed)); }};
};

}  // namespace talvo
