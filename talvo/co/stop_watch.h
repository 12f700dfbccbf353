// A stop token that is watched by a thread of the library.
#pragma once

#include <atomic>
#include <optional>
#include <stop_token>
#include <utility>

#include "talvo/event/thread.h"
#include "talvo/event/thread_link.h"

namespace talvo::detail {

// The link to the calling thread; null if that is not one of the library's.
inline CCmRefPtrT<CCmThreadLink> current_link() {
    ACmThread* const thread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return thread ? &thread->GetLink() : nullptr;
}

// Calls its owner from the loop of the watching thread after any thread has requested a stop. unwatch() and the destruction
// prevent the call. A stop needs no memory.
class stop_watch {
public:
    stop_watch() = default;
    stop_watch(stop_watch&&) noexcept {}  // before watch() only

    // Throws std::bad_alloc.
    void watch(const std::stop_token& token) {
        if (!token.stop_possible())
            return;
        notice_ = new notice(*this, current_link());
        callback_.emplace(token, request{notice_});
    }

    void unwatch() {
        callback_.reset();  // waits for a request under way in another thread
        if (notice* const old = std::exchange(notice_, nullptr)) {
            old->owner_ = nullptr;
            old->release();
        }
    }

protected:
    ~stop_watch() { unwatch(); }
    virtual void on_stop() = 0;

private:
    // Posted by the request, and shared with the queue until it has run or the thread has ended.
    class notice final : public ICmEvent {
    public:
        notice(stop_watch& owner, CCmRefPtrT<CCmThreadLink> link) : owner_(&owner), link_(std::move(link)) {}

        void post() {
            ++references_;
            if (link_)
                link_->PostEvent(this);
            else
                release();
        }
        void release() {
            if (--references_ == 0)
                delete this;
        }

        stop_watch* owner_;  // used in the watching thread only; null: no longer watched

    private:
        ~notice() override = default;
        CmResult OnEventFire() override {
            if (owner_)
                owner_->on_stop();
            return CM_OK;
        }
        void OnDestorySelf() override { release(); }

        CCmRefPtrT<CCmThreadLink> link_;
        std::atomic<int> references_{1};
    };

    struct request {
        notice* notice_;
        void operator()() const { notice_->post(); }
    };

    notice* notice_ = nullptr;
    std::optional<std::stop_callback<request>> callback_;
};

}  // namespace talvo::detail
