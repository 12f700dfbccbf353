// The thread of an object. Not for applications.
#pragma once

#include <atomic>

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
    // Of another thread. No callback begins afterwards; waits for the one that runs.
    void end_calls() noexcept {
        gone_ = true;
        calling_.wait(true);
    }
    // Then calls abandon() with the handle's reference: in the own thread, or here if that has ended. No memory.
    void abandon_at_home() {
        const CCmRefPtrT<CCmThreadLink> home = home_;
        home->PostEvent(&last_event_);
    }

protected:
    ~resident() override = default;

    // The scope of a callback.
    class call_scope {
    public:
        explicit call_scope(resident& owner) noexcept : owner_(owner), outer_(owner.calling_.exchange(true)) {}
        call_scope(const call_scope&) = delete;
        call_scope& operator=(const call_scope&) = delete;
        ~call_scope() {
            owner_.calling_ = outer_;
            if (owner_.gone_)
                owner_.calling_.notify_all();
        }
        explicit operator bool() const noexcept { return !owner_.gone_; }  // the callback may be called

    private:
        resident& owner_;
        const bool outer_;
    };

private:
    class last_event final : public ICmEvent {
    public:
        explicit last_event(resident& owner) noexcept : owner_(owner) {}

    private:
        CmResult OnEventFire() override { return CM_OK; }
        void OnDestorySelf() override {
            const auto last = CCmRefPtrT<resident>::Adopt(&owner_);
            owner_.abandon();
        }
        resident& owner_;
    };

    CCmRefPtrT<CCmThreadLink> home_;
    uint32_t references_ = 0;
    std::atomic<bool> calling_{false};
    std::atomic<bool> gone_{false};  // another thread has destroyed the handle
    last_event last_event_{*this};
};

// Owns a resident. Another thread may destroy it: that waits for a callback that runs, and the resident then ends in its own
// thread.
template <class Resident>
class handle {
public:
    handle() noexcept = default;
    explicit handle(Resident* made) : held_(made) {}
    handle(handle&&) noexcept = default;
    handle& operator=(handle&& other) noexcept {
        if (is_far())
            held_->end_calls();
        handle old(std::move(*this));
        held_ = std::move(other.held_);
        return *this;
    }
    ~handle() { reset(); }

    void reset() {
        const bool far = is_far();
        if (far)
            held_->end_calls();
        CCmRefPtrT<Resident> last = std::move(held_);
        if (far)
            last.Detach()->abandon_at_home();
        else if (last)
            last->abandon();
    }

    explicit operator bool() const noexcept { return static_cast<bool>(held_); }
    Resident* operator->() const noexcept { return held_.Get(); }
    Resident* get() const noexcept { return held_.Get(); }

private:
    bool is_far() const { return held_ && held_->has_home() && !held_->is_home(); }

    CCmRefPtrT<Resident> held_;
};

}  // namespace impl
}  // namespace callbacks
}  // namespace talvo
