// The state behind a connection or an HTTP exchange. Not for applications.
#pragma once

#include <coroutine>
#include <vector>

#include "talvo/co/loop_timer.h"
#include "talvo/co/message.h"
#include "talvo/co/result.h"
#include "talvo/transport/send_bytes.h"

namespace talvo::detail {

// Data that a coroutine sends: bytes of the caller, or a chain that is not consumed. Remembers the part that was taken.
class outgoing {
public:
    explicit outgoing(std::string_view bytes) : bytes_(bytes) {}
    explicit outgoing(const message& whole) : message_(&whole) {}
    explicit outgoing(const CCmMessageBlock& chain) : chain_(&chain) {}

private:
    friend class stream;
    std::string_view bytes_;
    const message* message_ = nullptr;  // not owned: the caller keeps it during the send, and it may move its bytes meanwhile
    const CCmMessageBlock* chain_ = nullptr;
    std::size_t taken_ = 0;
};

// A message of an upcall under way in this thread, which may use the library's bytes. Work for another thread may hold it, so
// that the bytes must become its own before.
class loan_scope {
public:
    explicit loan_scope(message*& loan) noexcept : loan_(loan), outer_(std::exchange(innermost_, this)) {}
    loan_scope(const loan_scope&) = delete;
    loan_scope& operator=(const loan_scope&) = delete;
    ~loan_scope() { innermost_ = outer_; }

    static void end_all() noexcept {
        for (const loan_scope* scope = innermost_; scope; scope = scope->outer_) {
            if (scope->loan_)
                scope->loan_->keep();
        }
    }

private:
    message*& loan_;
    loan_scope* const outer_;
    static inline thread_local constinit loan_scope* innermost_ = nullptr;
};

class receive_awaiter;
class send_awaiter;

// The messages of one transport, in both directions. Shared by its owner, the operations under way and its upcalls, which a
// derived class passes on. Everything happens in one thread.
class stream : private loop_timer {
public:
    explicit stream(ICmTransport& transport) : transport_(&transport) {}

    uint32_t AddReference() noexcept { return ++references_; }
    uint32_t ReleaseReference() noexcept {
        const uint32_t left = --references_;
        if (left == 0)
            delete this;
        return left;
    }

    ICmTransport& transport() const { return *transport_; }
    // Why sending cannot end: CM_ERROR_WOULD_BLOCK: a send is under way. Otherwise that of a send.
    std::error_code end_error() const noexcept {
        return !send_error_ && first_sender_ ? make_error_code(CM_ERROR_WOULD_BLOCK) : send_error_;
    }

    // Ends the connection. Operations under way end from the loop.
    void close() {
        transport_->Disconnect(CM_OK);
        if (std::exchange(closed_, true))
            return;
        if (!failed_)
            end_with(CM_ERROR_NOT_AVAILABLE);
        if (receiver_ || first_sender_)
            start_soon();
    }

protected:
    ~stream() override { transport_->Disconnect(CM_OK); }

    // The upcalls.
    void take_data(CCmMessageBlock& data) {
        const CCmRefPtrT<stream> guard(this);
        if (loan_)
            loan_->keep();
        if (receiver_ && queue_.empty())
            lend(data);
        else
            enqueue(data);
    }
    void take_room() {
        const CCmRefPtrT<stream> guard(this);
        continue_sending();
    }
    // No data follows; sends continue.
    void take_half_end() {
        const CCmRefPtrT<stream> guard(this);
        receiving_ended_ = true;
        wake_receiver();
    }
    // error: 0: orderly.
    void take_end(std::error_code error) {
        const CCmRefPtrT<stream> guard(this);
        if (!receiving_ended_)
            error_ = error;
        receiving_ended_ = failed_ = true;
        send_error_ = error ? error : make_error_code(CM_ERROR_NETWORK_SOCKET_CLOSE);
        wake_all();
    }

private:
    friend class receive_awaiter;
    friend class send_awaiter;

    static constexpr std::size_t MOST_QUEUED = 64 * 1024;  // cost in bytes; then reading pauses
    static constexpr std::size_t MESSAGE_COST = 256;  // of a message besides its bytes: its block and its place in the queue

    void on_time() override {
        const CCmRefPtrT<stream> guard(this);
        wake_all();
    }

    inline void lend(CCmMessageBlock& data);
    inline void wake_receiver();
    inline void wake_all();
    inline void continue_sending();
    inline void enqueue(CCmMessageBlock& data);

    void end_with(CmResult code) {
        receiving_ended_ = failed_ = true;
        error_ = send_error_ = make_error_code(code);
        queue_.clear();
        next_ = queued_ = 0;
    }

    void set_paused(bool paused) {
        if (std::exchange(paused_, paused) == paused)
            return;
        int32_t value = paused;
        transport_->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &value);
    }

    static std::size_t cost_of(const CCmMessageBlock& data) { return MESSAGE_COST + data.GetChainedLength(); }

    // The next queued message. Without one, reading continues.
    bool dequeue(result<message>& out) {
        if (queue_.empty())
            set_paused(false);
        if (queue_.empty())
            return false;
        queued_ -= cost_of(*queue_[next_]);
        out = message(std::move(queue_[next_]));
        if (++next_ == queue_.size()) {
            queue_.clear();
            next_ = 0;
        }
        return true;
    }

    // Sends the rest. true: that is over, with the error (out). false: OnSend follows.
    bool try_send(outgoing& data, std::error_code& error) {
        if (failed_) {
            error = send_error_;
            return true;
        }
        CmResult code = data.chain_ || data.message_ ? send_chain(data) : send_bytes(data);
        if (code == CM_ERROR_PARTIAL_DATA)
            return false;
        if (code == CM_ERROR_NOT_INITIALIZED || code == CM_ERROR_NULL_POINTER)
            code = CM_ERROR_NETWORK_SOCKET_CLOSE;
        if (code != CM_OK)
            error = make_error_code(code);
        return true;
    }

    CmResult send_bytes(outgoing& data) {
        const std::string_view left = data.bytes_.substr(data.taken_);
        if (left.size() >= CCmMessageBlock::MOST_LENGTH)
            return CM_ERROR_INVALID_ARG;
        uint32_t taken = 0;
        const CmResult code = cm_send_bytes(*transport_, left.data(), static_cast<uint32_t>(left.size()), &taken);
        data.taken_ += taken;
        return code;
    }

    CmResult send_chain(outgoing& data) {
        const CCmMessageBlock* const chain = data.chain_ ? data.chain_ : data.message_->chain_;
        if (!chain)
            return data.message_->lost_ ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_INVALID_ARG;
        CCmTransportParameter para;
        CmResult code = CM_OK;
        if (!chain->GetNext()) {  // a view on the stack copies nothing
            CCmMessageBlock view(*chain, chain->GetTopLevelLength());
            view.AdvanceTopLevelReadPtr(static_cast<uint32_t>(data.taken_));
            code = transport_->SendData(view, &para);
        } else {
            const CCmChainPtr copy(chain->DuplicateChained());
            if (!copy)
                return CM_ERROR_OUT_OF_MEMORY;
            copy->AdvanceChainedReadPtr(static_cast<uint32_t>(data.taken_));
            code = transport_->SendData(*copy, &para);
        }
        data.taken_ += para.m_dwHaveSent;
        return code;
    }

    const CCmRefPtrT<ICmTransport> transport_;
    uint32_t references_ = 0;
    bool paused_ = false;
    bool receiving_ended_ = false;  // no message follows those in the queue
    bool failed_ = false;           // nothing can be sent
    bool closed_ = false;           // by close()
    std::error_code error_;         // the end of the messages; 0: orderly
    std::error_code send_error_;    // of sends after a failure
    message* loan_ = nullptr;       // uses the data of the upcall under way
    receive_awaiter* receiver_ = nullptr;
    send_awaiter* first_sender_ = nullptr;  // the senders in their order
    send_awaiter* last_sender_ = nullptr;
    std::vector<CCmChainPtr> queue_;  // received and not yet taken, from next_ on
    std::size_t next_ = 0;
    std::size_t queued_ = 0;  // their cost
};

class [[nodiscard]] receive_awaiter {
public:
    explicit receive_awaiter(CCmRefPtrT<stream> from) noexcept : stream_(std::move(from)) {}
    receive_awaiter(receive_awaiter&&) noexcept = default;  // before it is awaited only
    ~receive_awaiter() {
        if (stream_ && stream_->receiver_ == this)
            stream_->receiver_ = nullptr;
    }

    bool await_ready() {
        if (!stream_ || stream_->receiver_) {
            outcome_ = make_error_code(stream_ ? CM_ERROR_ALREADY_INITIALIZED : CM_ERROR_NOT_INITIALIZED);
            return true;
        }
        if (stream_->dequeue(outcome_))
            return true;
        if (stream_->receiving_ended_)
            outcome_ = stream_->error_;
        return stream_->receiving_ended_;
    }
    void await_suspend(std::coroutine_handle<> awaiting) noexcept {
        awaiting_ = awaiting;
        stream_->receiver_ = this;
    }
    result<message> await_resume() noexcept {
        if (lent_)
            return message(*lent_, stream_->loan_);
        return std::move(outcome_);
    }

private:
    friend class stream;

    CCmRefPtrT<stream> stream_;
    CCmMessageBlock* lent_ = nullptr;  // instead of outcome_: the data of the upcall under way
    result<message> outcome_;
    std::coroutine_handle<> awaiting_;
};

class [[nodiscard]] send_awaiter {
public:
    send_awaiter(CCmRefPtrT<stream> to, outgoing data) noexcept : stream_(std::move(to)), data_(data) {}
    send_awaiter(send_awaiter&&) noexcept = default;  // before it is awaited only
    ~send_awaiter() {
        if (waiting_)
            leave();
    }

    // Completes at once if everything is taken; behind another sender it waits for its turn.
    bool await_ready() {
        if (!stream_) {
            error_ = make_error_code(CM_ERROR_NOT_INITIALIZED);
            return true;
        }
        return !stream_->first_sender_ && stream_->try_send(data_, error_);
    }
    void await_suspend(std::coroutine_handle<> awaiting) noexcept {
        awaiting_ = awaiting;
        waiting_ = true;
        previous_ = stream_->last_sender_;
        (previous_ ? previous_->next_ : stream_->first_sender_) = this;
        stream_->last_sender_ = this;
    }
    result<> await_resume() noexcept { return error_; }

private:
    friend class stream;

    void leave() noexcept {
        (previous_ ? previous_->next_ : stream_->first_sender_) = next_;
        (next_ ? next_->previous_ : stream_->last_sender_) = previous_;
        waiting_ = false;
    }

    CCmRefPtrT<stream> stream_;
    outgoing data_;
    std::error_code error_;
    bool waiting_ = false;
    send_awaiter* next_ = nullptr;
    send_awaiter* previous_ = nullptr;
    std::coroutine_handle<> awaiting_;
};

// The receiver gets the data without a copy, for as long as it does not suspend.
inline void stream::lend(CCmMessageBlock& data) {
    receive_awaiter& receiver = *std::exchange(receiver_, nullptr);
    receiver.lent_ = &data;
    const loan_scope scope(loan_);
    receiver.awaiting_.resume();
    if (loan_)
        loan_->keep();
}

inline void stream::enqueue(CCmMessageBlock& data) {
    CCmChainPtr copy(data.DuplicateChained());
    bool queued = copy != nullptr;
    try {
        if (queued)
            queue_.push_back(std::move(copy));
    } catch (const std::bad_alloc&) {
        queued = false;
    }
    if (!queued) {
        transport_->Disconnect(CM_ERROR_OUT_OF_MEMORY);
        end_with(CM_ERROR_OUT_OF_MEMORY);
        return wake_all();
    }
    queued_ += cost_of(data);
    if (queued_ >= MOST_QUEUED)
        set_paused(true);
}

inline void stream::wake_receiver() {
    if (receive_awaiter* const receiver = std::exchange(receiver_, nullptr)) {
        receiver->outcome_ = error_;
        receiver->awaiting_.resume();
    }
}

inline void stream::continue_sending() {
    while (send_awaiter* const sender = first_sender_) {
        if (!try_send(sender->data_, sender->error_))
            return;
        sender->leave();
        sender->awaiting_.resume();
    }
}

inline void stream::wake_all() {
    wake_receiver();
    continue_sending();
}

}  // namespace talvo::detail
