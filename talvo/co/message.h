// Received bytes.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "talvo/base/chain_ptr.h"

namespace talvo {

namespace detail {
class stream;
class receive_awaiter;
class loan_scope;
}  // namespace detail

// One message or datagram, or bytes of a stream as they arrived. To send it on, pass the message itself: that copies nothing.
// The first call of view(), bytes() or block() gives the message storage of its own, which stays in place for its life; so
// does the first suspension of a coroutine that holds it. Belongs to the thread of its connection until then.
class message {
public:
    message() noexcept = default;
    // The other message is empty then.
    message(message&& other) noexcept { take(other); }
    message& operator=(message&& other) noexcept {
        if (this != &other) {
            release();
            take(other);
        }
        return *this;
    }
    ~message() { release(); }

    // The number of bytes.
    std::size_t size() const noexcept { return chain_ ? chain_->GetChainedLength() : 0; }
    bool empty() const noexcept { return size() == 0; }

    // The bytes, valid as long as the message and until it is moved from. Throws std::bad_alloc.
    std::string_view view() const& {
        join();
        return chain_ ? std::string_view(chain_->GetTopLevelReadPtr(), chain_->GetTopLevelLength()) : std::string_view();
    }
    std::string_view view() const&& = delete;
    std::span<const std::byte> bytes() const& { return std::as_bytes(std::span(view())); }
    std::span<const std::byte> bytes() const&& = delete;

    // A copy. Throws std::bad_alloc.
    std::string str() const {
        check();
        return chain_ ? chain_->FlattenChained() : std::string();
    }

    // As the library holds it, for its own functions; null: a message that was moved from. Throws std::bad_alloc.
    const CCmMessageBlock* block() const {
        keep();
        check();
        return chain_;
    }

private:
    friend class detail::stream;
    friend class detail::receive_awaiter;
    friend class detail::loan_scope;

    // A view on bytes of the library. loan is reset when the message no longer uses them, and points at the message until then.
    message(CCmMessageBlock& lent, message*& loan) noexcept : chain_(&lent), loan_(&loan) { loan = this; }
    explicit message(CCmChainPtr owned) noexcept : chain_(owned.release()) {}

    void take(message& other) noexcept {
        chain_ = std::exchange(other.chain_, nullptr);
        lost_ = std::exchange(other.lost_, false);
        loan_ = std::exchange(other.loan_, nullptr);
        if (loan_)
            *loan_ = this;
    }

    void release() noexcept {
        if (loan_)
            *std::exchange(loan_, nullptr) = nullptr;
        else if (chain_)
            chain_->DestroyChained();
        chain_ = nullptr;
    }

    // Ends the loan: from now on the message owns its bytes. Without memory they are lost.
    void keep() const noexcept {
        if (!loan_)
            return;
        *std::exchange(loan_, nullptr) = nullptr;
        chain_ = chain_->DuplicateChained();
        lost_ = !chain_;
    }

    // Makes one piece of several.
    void join() const {
        keep();
        check();
        if (!chain_ || !chain_->GetNext())
            return;
        const auto length = static_cast<uint32_t>(size());
        CCmMessageBlock whole(length);
        if (length > 0 && whole.GetTopLevelSpace() < length)
            throw std::bad_alloc();
        chain_->Read(whole.GetTopLevelWritePtr(), length, nullptr, 0);
        whole.AdvanceTopLevelWritePtr(length);
        CCmMessageBlock* const joined = whole.DuplicateTopLevel();
        if (!joined)
            throw std::bad_alloc();
        std::exchange(chain_, joined)->DestroyChained();
    }

    void check() const {
        if (lost_)
            throw std::bad_alloc();
    }

    mutable CCmMessageBlock* chain_ = nullptr;  // owned, unless it is lent
    mutable message** loan_ = nullptr;          // null: not lent
    mutable bool lost_ = false;                 // there was no memory to keep the bytes
};

}  // namespace talvo
