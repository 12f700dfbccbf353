// The thread of an object. Not for applications.
#pragma once

#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"

namespace talvo {
inline namespace callbacks {
namespace impl {

// The part of every object here that its handle shares with the upcalls. It belongs to the thread that made it. When that
// thread ends, the object gives up all that it holds; then it belongs to no thread.
class resident : protected CCmThreadTenant {
public:
    resident() {
        if (ACmThread* const thread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT)) {
            home_ = &thread->GetLink();
            home_->Join(*this);
        }
    }

    void AddReference() noexcept { ++references_; }
    void ReleaseReference() noexcept {
        if (--references_ == 0)
            delete this;
    }

    bool is_home() const { return home_ && home_->IsCurrentThread(); }
    bool has_home() const noexcept { return static_cast<bool>(home_); }  // false: made in a thread that is not the library's

    // The handle is gone: no callback follows. May delete this.
    virtual void abandon() = 0;

protected:
    ~resident() override = default;

private:
    CCmRefPtrT<CCmThreadLink> home_;
    uint32_t references_ = 0;

    template <class Resident>
    friend class handle;
};

// Owns a resident. Another thread may destroy it: the resident then ends in its own thread.
template <class Resident>
class handle {
public:
    handle() noexcept = default;
    explicit handle(Resident* made) : held_(made) {}
    handle(handle&&) noexcept = default;
    handle& operator=(handle&& other) noexcept {
        handle old(std::move(*this));
        held_ = std::move(other.held_);
        return *this;
    }
    ~handle() { reset(); }

    void reset() {
        if (!held_)
            return;
        last_call last{std::move(held_)};
        if (last.held->is_home() || !last.held->has_home())
            return;
        const CCmRefPtrT<CCmThreadLink> home = last.held->home_;
        home->Post(std::move(last));  // runs the destructor there, or here if the thread has ended
    }

    explicit operator bool() const noexcept { return static_cast<bool>(held_); }
    Resident* operator->() const noexcept { return held_.Get(); }
    Resident* get() const noexcept { return held_.Get(); }

private:
    struct last_call {
        explicit last_call(CCmRefPtrT<Resident> given) noexcept : held(std::move(given)) {}
        last_call(last_call&&) noexcept = default;
        ~last_call() {
            if (held)
                held->abandon();
        }
        void operator()() const {}
        CCmRefPtrT<Resident> held;
    };

    CCmRefPtrT<Resident> held_;
};

}  // namespace impl
}  // namespace callbacks
}  // namespace talvo
