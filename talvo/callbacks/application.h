// The frame of a program with callbacks.
#pragma once

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "talvo/callbacks/listener.h"
#include "talvo/callbacks/loop.h"
#include "talvo/event/embedded_loop.h"
#include "talvo/event/signal_handler.h"

namespace talvo {
inline namespace callbacks {

// How an application runs.
struct application_settings {
    // false: the main thread serves the sockets, without a hand-over. true: a thread of their own does, for a program whose
    // main thread also computes.
    bool own_network_thread = false;
    // true: SIGINT and SIGTERM are blocked in all threads and end the loop. false: they keep their default effect.
    bool handle_signals = true;
    // The longest time that the end of all connections may take; 0: LingerSeconds of the configuration, 30 s.
    std::chrono::nanoseconds drain_time{0};
};

// Starts the library in the main thread, runs its loop, and ends everything in order. The first object of main, and the only
// one. Use it in the main thread, except stop, post, call and main_loop, which are for any thread while it lives.
//
// In a thread that is the library's main thread already, a simulated one for example, it uses that thread and does not end it.
// Connections, listeners and timers may outlive the application: they have ended then.
class application final : private ICmSignalSink {
public:
    // Starts the library; error() says whether that has worked.
    explicit application(const application_settings& settings = {}) : settings_(settings), error_(make_error_code(start())) {
        if (error_)
            failure_ = "cannot start: " + error_.message();
    }
    application(const application&) = delete;
    application& operator=(const application&) = delete;
    // Drains, unless run has done so, and ends the threads of the library.
    ~application() override {
        if (state_ == state::refused)
            return;
        if (!drained_)
            drain();
        listeners_.clear();
        signals_.Close();
        if (state_ == state::owns_library)
            end_library();
        exists_ = false;
    }

    // Why it has not started: every other operation then fails with it. CM_ERROR_ALREADY_INITIALIZED: another application
    // exists, or another thread is the library's main thread. CM_ERROR_NOT_AVAILABLE: a thread is older than the application
    // and does not block the signals.
    std::error_code error() const noexcept { return error_; }
    explicit operator bool() const noexcept { return !error_; }

    // Calls accept(connection&) for each connection, see listener::listen, until the end of the application. Gives the bound
    // address.
    template <class Function>
    result<address> listen(std::string_view at, kind type, Function accept, const listen_options& options = {}) {
        if (error_)
            return error_;
        listener added;
        error_ = added.listen(at, type, std::move(accept), options);
        if (error_) {
            failure_ = "cannot listen on " + std::string(at) + ": " + error_.message();
            return error_;
        }
        listeners_.push_back(std::move(added));
        return listeners_.back().local_address();
    }
    // As talvo::connect.
    connection connect(std::string_view to, kind type, const connect_options& options = {}) {
        return callbacks::connect(to, type, options);
    }

    // Runs the loop until stop, SIGINT or SIGTERM, and then drains: listeners stop, each connection ends with
    // CM_ERROR_NETWORK_SOCKET_CLOSE behind its data, and its on_end is called. Gives the status of stop, and 0 after a signal.
    // Another signal during the drain ends the process at once. Gives 1 at once, with a line on stderr, if the application has
    // not started or a listen has failed; error() has the code.
    int run() {
        if (error_) {
            std::fprintf(stderr, "talvo: %s\n", failure_.c_str());
            return EXIT_FAILURE;
        }
        drained_ = false;
        reactor().RunEventLoop();
        drain();
        return status_;
    }
    int run_until_signal() { return run(); }

    // Ends the loop; a loop that does not run yet ends as soon as it starts. Any thread.
    void stop(int status = 0) {
        status_ = status;
        if (state_ != state::refused)
            reactor().StopEventLoop();
    }

    // The main thread's loop. Any thread.
    loop main_loop() const { return main_; }
    // As those of loop. Any thread.
    template <class Function>
    std::error_code post(Function function) const {
        return main_.post(std::move(function));
    }
    template <class Function>
    auto call(Function&& function) const {
        return main_.call(std::forward<Function>(function));
    }

    // For a program whose own loop runs the library instead of run: docs/embedding.md. stop and the signals end RunOnce with
    // CM_ERROR_NOT_AVAILABLE. Null: the application has not started.
    ICmEmbeddedLoop* embedded_loop() const { return error_ ? nullptr : cm_get_embedded_loop(&reactor()); }

private:
    enum class state { refused, uses_library, owns_library };

    CmResult start() {
        if (exists_.exchange(true))
            return CM_ERROR_ALREADY_INITIALIZED;
        state_ = state::uses_library;
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        CmResult code = CM_OK;
        if (!CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_MAIN))
            code = start_library(manager);
        if (code == CM_OK)
            main_ = loop::current();
        else if (state_ == state::uses_library)
            exists_ = false, state_ = state::refused;
        return code;
    }

    // The signals come before the network thread, which inherits their block.
    CmResult start_library(CCmThreadManager& manager) {
        manager.SetNetworkThreadMode(settings_.own_network_thread ? CCmThreadManager::NETWORK_THREAD_OWN
                                                                  : CCmThreadManager::NETWORK_THREAD_MAIN);
        CmResult code = manager.InitMainThread(0, nullptr);
        if (code != CM_OK)
            return code;
        state_ = state::owns_library;
        if (settings_.handle_signals)
            code = signals_.Open(&reactor(), {SIGINT, SIGTERM}, this);
        if (code == CM_OK && !CCmConnectionManager::Instance())
            code = CM_ERROR_UNEXPECTED;
        return code;
    }

    static void end_library() {
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        manager.StopAllThreads(nullptr);
        manager.JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        if (ACmThread* const thread = manager.GetThread(CCmThreadManager::TT_MAIN))
            thread->Destory(CM_OK);
    }

    void drain() {
        CCmConnectionManager* const manager = CCmConnectionManager::Instance();
        if (!manager)
            return;
        CCmTimeValue limit = talvo::detail::time_of(settings_.drain_time);
        draining_ = true;
        manager->Drain(settings_.drain_time.count() > 0 ? &limit : nullptr);
        draining_ = false;
        drained_ = true;
    }

    void OnSignal(int signal) override {
        if (draining_)
            std::_Exit(128 + signal);
        stop(0);
    }

    static ICmReactor& reactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

    static inline std::atomic<bool> exists_{false};

    const application_settings settings_;
    state state_ = state::refused;
    loop main_;
    CCmSignalHandler signals_;
    std::error_code error_;  // behind the members that start() sets
    std::string failure_;    // its text
    std::atomic<int> status_{0};
    bool draining_ = false;
    bool drained_ = false;
    std::vector<listener> listeners_;
};

}  // namespace callbacks
}  // namespace talvo
