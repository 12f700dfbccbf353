// One end of a connection.
#pragma once

#include "talvo/co/channel.h"
#include "talvo/co/kind.h"
#include "talvo/co/options.h"
#include "talvo/co/sender.h"

namespace talvo {

namespace detail {
class connect_awaiter;
}

// Made by connect and listen, and used in the thread that made it. Its destruction disconnects in order: the peer gets all data
// that was taken, and then the end. After the end of the thread every operation fails, and destruction has no effect.
//
// One coroutine at a time may receive. Several may send: each message is taken as a whole, in the order of the calls. The
// operations send are those of sender.
class connection : public sender<detail::channel> {
public:
    connection() noexcept = default;  // not connected: every operation fails with CM_ERROR_NOT_INITIALIZED
    connection(connection&& other) noexcept = default;
    // The old connection is disconnected.
    connection& operator=(connection&& other) noexcept {
        connection taken(std::move(other));
        std::swap(channel_, taken.channel_);
        return *this;
    }
    ~connection() { close(); }

    explicit operator bool() const noexcept { return static_cast<bool>(channel_); }  // it is open at this end

    // co_await gives a result<message>: the next message, or the next bytes of a stream. No value and an error of 0: the peer
    // has ended its side in order; over plain tcp this side may still send. CM_ERROR_ALREADY_INITIALIZED: another coroutine
    // receives. CM_ERROR_NOT_AVAILABLE: this end has closed. CM_ERROR_NETWORK_SOCKET_CLOSE: the application drains, or its
    // network thread has ended. CM_ERROR_OUT_OF_MEMORY: the connection has ended for lack of memory. Otherwise the reason of
    // the failure, see failure().
    // At most 64 KiB, or one message, is kept for a coroutine that does not receive; then TCP slows the peer. Each message
    // counts for 256 bytes more. At a failure the bytes that the system has received come on top.
    // With a stop token also std::errc::operation_canceled; no message is lost.
    auto receive() { return detail::receive_awaiter(channel_); }
    auto receive(std::stop_token token) { return with_stop(std::move(token), receive()); }

    // Half-close: the peer gets the end after all data taken, and this side goes on receiving. Plain tcp only:
    // CM_ERROR_INVALID_ARG. talvo::errc::would_block: a send is under way. After the end of the connection the errors of send;
    // a second call has no effect.
    result<> end_sending() {
        int32_t on = 1;
        if (channel_ && channel_->end_error())
            return channel_->end_error();
        return set_native(CM_OPT_TRANSPORT_END_SENDING, &on);
    }

    // Disconnects as the destruction does. Operations under way end from the loop, with CM_ERROR_NOT_AVAILABLE.
    void close() {
        if (channel_)
            channel_->close();
    }

    // Both stay available after the end.
    address local_address() const { return get_address(CM_OPT_TRANSPORT_LOCAL_ADDR); }
    address peer_address() const { return get_address(CM_OPT_TRANSPORT_PEER_ADDR); }
    // The failure that ended the connection, with its text and the system's errno; none after an orderly end.
    CCmFailure failure() const {
        CCmFailure found;
        get_native(CM_OPT_TRANSPORT_LAST_FAILURE, &found);
        return found;
    }

    //    peer.set(talvo::options::read_size, 65536);
    // Errors as ICmTransport::GetOption and SetOption.
    template <class T>
    result<T> get(option<T> which) const {
        T value{};
        if (const auto done = get_native(which.command, &value); !done)
            return done.error();
        return value;
    }
    template <class T>
    result<> set(option<T> which, std::type_identity_t<T> value) {
        return set_native(which.command, &value);
    }

    // For the library's own functions; null: not connected. The layer is its sink.
    ICmTransport* native() const noexcept { return channel_ ? &channel_->transport() : nullptr; }

private:
    friend class detail::connect_awaiter;
    friend class listener;
    explicit connection(CCmRefPtrT<detail::channel> opened) noexcept : sender(std::move(opened)) {}

    result<> get_native(uint32_t command, void* value) const {
        return make_error_code(channel_ ? native()->GetOption(command, value) : CM_ERROR_NOT_INITIALIZED);
    }
    result<> set_native(uint32_t command, void* value) {
        return make_error_code(channel_ ? native()->SetOption(command, value) : CM_ERROR_NOT_INITIALIZED);
    }
    address get_address(uint32_t command) const {
        CCmInetAddr native;
        get_native(command, &native);
        return native;
    }
};

}  // namespace talvo
