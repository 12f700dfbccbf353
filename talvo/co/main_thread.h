// The library's main thread in an application, for both layers of C++20. Not for applications, but for the settings.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "talvo/base/error_category.h"
#include "talvo/co/loop_timer.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/embedded_loop.h"
#include "talvo/event/reactor.h"
#include "talvo/event/signal_handler.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"

namespace talvo {

// How an application runs.
struct application_settings {
    // false: the main thread serves the sockets, without a hand-over. true: a thread of their own does, for a program whose
    // main thread also computes.
    bool own_network_thread = false;
    // true: SIGINT and SIGTERM are blocked in all threads and end the loop. false: they keep their default effect.
    bool handle_signals = true;
    // The longest time that a drain may take; 0: LingerSeconds of the configuration, 30 s.
    std::chrono::nanoseconds drain_time{0};
};

namespace detail {

// Starts the library in the calling thread, runs its loop, and ends the library. One object at a time in a process. A thread
// that is the library's main thread already is used and not ended.
class main_thread final : private ICmSignalSink {
public:
    explicit main_thread(const application_settings& settings) : settings_(settings), code_(start()) {}
    ~main_thread() override {
        signals_.Close();
        if (owns_library_)
            end_library();
        if (reactor_)
            CCmThreadManager::ReleaseMainThread();
    }

    // CM_ERROR_ALREADY_INITIALIZED: another object exists, or another thread is the library's main thread.
    CmResult code() const noexcept { return code_; }
    // CM_ERROR_NOT_AVAILABLE: an older thread does not block the signals.
    CmResult signal_code() const noexcept { return signal_code_; }
    // The text of either; "": there is none.
    std::string failure() const {
        if (code_ != CM_OK)
            return "cannot start: " + make_error_code(code_).message();
        return signal_code_ == CM_OK ? "" : "cannot receive signals: a thread does not block them";
    }
    // Prints the text. Gives 1.
    static int fail(const std::string& failure) {
        std::fprintf(stderr, "talvo: %s\n", failure.c_str());
        return EXIT_FAILURE;
    }

    // Runs the loop until stop or a signal. The status of a signal is 0, or its number is added to a base that is not 0.
    void run(int signal_base) {
        signal_base_ = signal_base;
        reactor_->RunEventLoop();
    }
    // Ends all connections, see CCmConnectionManager::Drain. A signal meanwhile ends the process.
    void drain() {
        CCmTimeValue limit = time_of(settings_.drain_time);
        draining_ = true;
        if (CCmConnectionManager* const manager = CCmConnectionManager::Instance())
            manager->Drain(settings_.drain_time.count() > 0 ? &limit : nullptr);
        draining_ = false;
    }
    // That of the first stop since the last call; 0 without one.
    int take_status() noexcept { return static_cast<int>(status_.exchange(NO_STATUS) & 0xFFFFFFFF); }

    // Ends the loop, also one that does not run yet. Any thread. No effect during a drain, nor after a failed start: the loop
    // may be another one's.
    void stop(int status) {
        if (!reactor_ || draining_)
            return;
        int64_t none = NO_STATUS;
        status_.compare_exchange_strong(none, static_cast<uint32_t>(status));
        reactor_->StopEventLoop();
    }

    ICmEmbeddedLoop* embedded_loop() const { return cm_get_embedded_loop(reactor_); }  // null after a failed start

private:
    CmResult start() {
        CmResult code = CCmThreadManager::ClaimMainThread();
        if (code != CM_OK)
            return code;
        code = CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_MAIN) ? CM_OK : start_library();
        if (code == CM_OK)
            reactor_ = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN);
        else
            CCmThreadManager::ReleaseMainThread();
        return code;
    }

    // The signals come before the network thread, which inherits their block.
    CmResult start_library() {
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        if (manager.GetThread(CCmThreadManager::TT_MAIN))
            return CM_ERROR_ALREADY_INITIALIZED;
        manager.SetNetworkThreadMode(settings_.own_network_thread ? CCmThreadManager::NETWORK_THREAD_OWN
                                                                  : CCmThreadManager::NETWORK_THREAD_MAIN);
        const CmResult code = manager.InitMainThread(0, nullptr);
        if (code != CM_OK)
            return code;
        if (settings_.handle_signals)
            signal_code_ = signals_.Open(manager.GetThreadReactor(CCmThreadManager::TT_MAIN), {SIGINT, SIGTERM}, this);
        owns_library_ = CCmConnectionManager::Instance() != nullptr;
        if (owns_library_)
            return CM_OK;
        signals_.Close();
        end_library();
        return CM_ERROR_UNEXPECTED;
    }

    static void end_library() {
        CCmThreadManager& manager = *CCmThreadManager::Instance();
        manager.StopAllThreads(nullptr);
        manager.JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        if (ACmThread* const thread = manager.GetThread(CCmThreadManager::TT_MAIN))
            thread->Destory(CM_OK);
    }

    void OnSignal(int signal) override {
        if (draining_)
            std::_Exit(128 + signal);
        stop(signal_base_ == 0 ? 0 : signal_base_ + signal);
    }

    const application_settings settings_;
    ICmReactor* reactor_ = nullptr;  // null: the start has failed
    bool owns_library_ = false;
    CCmSignalHandler signals_;
    CmResult signal_code_ = CM_OK;
    const CmResult code_;                                   // behind the members that start() sets
    static constexpr int64_t NO_STATUS = int64_t{1} << 32;  // 0 in the bits of a status
    std::atomic<int64_t> status_{NO_STATUS};
    int signal_base_ = 0;
    std::atomic<bool> draining_{false};
};

}  // namespace detail
}  // namespace talvo
