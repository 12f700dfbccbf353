// Work for another thread.
#pragma once

#include <exception>
#include <memory>
#include <optional>

#include "talvo/co/result.h"
#include "talvo/co/user_thread.h"

namespace talvo {
inline namespace callbacks {

// The loop of a thread of the library. A value: copies refer to the same loop, and any thread may use them, also after the end
// of that thread.
class loop {
public:
    loop() noexcept = default;  // of no thread: every operation fails with CM_ERROR_NOT_INITIALIZED
    explicit loop(ACmThread& thread) : link_(&thread.GetLink()) {}

    // That of the calling thread; of no thread if it is not one of the library's.
    static loop current() {
        ACmThread* const thread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
        return thread ? loop(*thread) : loop();
    }

    // Runs function() in the thread, behind earlier posts, and returns at once. If the thread ends first, the function is
    // destroyed and does not run. CM_ERROR_NOT_AVAILABLE: the thread has ended. CM_ERROR_NULL_POINTER: it has no event queue.
    // CM_ERROR_OUT_OF_MEMORY. The function need not be copyable, and must not throw.
    template <class Function>
    std::error_code post(Function function) const {
        return make_error_code(link_ ? link_->Post(std::move(function)) : CM_ERROR_NOT_INITIALIZED);
    }

    // Runs function() in the thread and waits for it; in the thread itself it runs at once. Gives its value, a copy if it
    // returns a reference, and rethrows its exception here. CM_ERROR_NOT_AVAILABLE: the thread has ended, and the function has
    // not run. Two threads that call each other at the same time wait for ever; do not call another thread from the network
    // thread.
    template <class Function>
    auto call(Function&& function) const -> result<std::remove_cvref_t<std::invoke_result_t<Function&>>> {
        using value = std::remove_cvref_t<std::invoke_result_t<Function&>>;
        result<value> outcome;
        std::exception_ptr thrown;
        const auto run = [&] {
            try {
                if constexpr (std::is_void_v<value>)
                    function();
                else
                    outcome = function();
            } catch (...) {
                thrown = std::current_exception();
            }
            return CM_OK;
        };
        const CmResult code = link_ ? link_->Call(run) : CM_ERROR_NOT_INITIALIZED;
        if (thrown)
            std::rethrow_exception(thrown);
        if (code != CM_OK)
            return make_error_code(code);
        return outcome;
    }

    bool is_current() const { return link_ && link_->IsCurrentThread(); }

private:
    CCmRefPtrT<CCmThreadLink> link_;
};

// A thread of the library with an event queue and timers, for connections, timers and posted work. Its destruction runs the
// functions that were posted, and waits for the end of the thread: at most 100 ms. A function that takes longer continues, and
// the thread ends by itself.
class thread final : private talvo::detail::user_thread {
public:
    using user_thread::error;  // CM_ERROR_UNEXPECTED: the system has no thread. CM_ERROR_OUT_OF_MEMORY
    callbacks::loop loop() const { return native() ? callbacks::loop(*native()) : callbacks::loop(); }

    // As those of loop.
    template <class Function>
    std::error_code post(Function function) const {
        return loop().post(std::move(function));
    }
    template <class Function>
    auto call(Function&& function) const {
        return loop().call(std::forward<Function>(function));
    }
};

}  // namespace callbacks
}  // namespace talvo
