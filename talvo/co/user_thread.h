// A thread of the library as an object, for both layers of C++20. Not for applications.
#pragma once

#include "talvo/base/error_category.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"

namespace talvo::detail {

// Owns a thread with an event queue and timers. Its destruction stops the loop and waits at most 100 ms for the thread; a
// function that takes longer continues, and the thread ends by itself.
class user_thread {
public:
    user_thread() : error_(make_error_code(CCmThreadManager::Instance()->CreateUserTaskThread(native_))) {}
    user_thread(const user_thread&) = delete;
    user_thread& operator=(const user_thread&) = delete;

    std::error_code error() const noexcept { return error_; }
    explicit operator bool() const noexcept { return native_; }
    ACmThread* native() const noexcept { return native_; }

protected:
    ~user_thread() {
        if (!native_)
            return;
        native_->Stop();
        native_->Join();
        native_->Destory(CM_OK);
    }

private:
    ACmThread* native_ = nullptr;
    std::error_code error_;
};

}  // namespace talvo::detail
