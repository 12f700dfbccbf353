// One end of a connection, with callbacks.
#pragma once

#include "talvo/callbacks/endpoint.h"

namespace talvo {
inline namespace callbacks {

// Made by connect() and by a listener, and used in the thread that made it, which is one of the library's with an event queue.
// All callbacks come there, one at a time, and never inside a call of this object. Each gets the connection as its first
// argument, if it takes one: a reference to the object wherever it was moved to.
//
// Inside a callback everything is allowed: to set callbacks, send, close, move or destroy the connection. Nothing is called
// after its destruction, after close() and after the end of its thread. A connection whose thread has ended is harmless: its
// operations fail with CM_ERROR_NOT_INITIALIZED, and any thread may destroy it. Another thread may also destroy it earlier:
// that waits for a callback of it that runs, no further one is called, and the connection ends in its own thread. So a callback
// must not wait for a thread that destroys its connection. In another thread send() gives CM_ERROR_FAILURE, and close(),
// pause() and the setting of callbacks have no effect. A callback must not throw: an exception ends the process.
class connection {
public:
    connection() noexcept = default;  // not connected: every operation fails with CM_ERROR_NOT_INITIALIZED
    connection(connection&& other) noexcept : endpoint_(std::move(other.endpoint_)) { adopt(); }
    connection& operator=(connection&& other) noexcept {
        endpoint_ = std::move(other.endpoint_);
        adopt();
        return *this;
    }
    // As close(), without further callbacks.
    ~connection() = default;

    explicit operator bool() const noexcept { return endpoint_ && endpoint_->is_open(); }  // connected, and not ended

    // Setting a callback replaces the former one. They are destroyed at the end of the connection.

    // (connection&): connected. Of connect() only.
    template <class Function>
    connection& on_open(Function function) {
        return set([&](impl::callbacks_of& all) { all.on_open = std::move(function); });
    }
    // (connection&, const received&): bytes of a stream, a datagram or a message. Until it is set, nothing is read from the
    // connection, so that no data is lost. A send that fails before gives up waiting: on_end follows.
    template <class Function>
    connection& on_receive(Function function) {
        return set([&](impl::callbacks_of& all) { all.on_receive = std::move(function); });
    }
    // (connection&): the peer has ended its side in order, and this side may still send. Without this callback such an end is
    // that of the connection. Plain tcp only, and to be set before the connection is open: with connect(), or when accepted.
    template <class Function>
    connection& on_receive_end(Function function) {
        return set([&](impl::callbacks_of& all) { all.on_receive_end = std::move(function); });
    }
    // (connection&): is_full() has become false, and send() takes data again.
    template <class Function>
    connection& on_send(Function function) {
        return set([&](impl::callbacks_of& all) { all.on_send = std::move(function); });
    }
    // (connection&, std::error_code): the last callback. The code is 0 at the peer's orderly end; otherwise the cause: of a
    // connect that failed, of the failure of the connection; CM_ERROR_NETWORK_SOCKET_CLOSE if the application drains. Data
    // that send() took and that was not sent makes it a failure, too.
    template <class Function>
    connection& on_end(Function function) {
        return set([&](impl::callbacks_of& all) { all.on_end = std::move(function); });
    }

    // Takes all of the data or nothing. Code 0: it was taken, and is sent even if the connection is closed next.
    // talvo::errc::would_block (std::errc::operation_would_block): is_full(); nothing was taken, and on_send follows.
    // CM_ERROR_NOT_AVAILABLE: the connect is under way. CM_ERROR_NOT_INITIALIZED: it has ended, or was closed.
    // CM_ERROR_INVALID_ARG: a message or datagram is too long. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_NETWORK_SOCKET_ERROR: broken;
    // on_end follows. The bytes may be reused after the return. Data of the library is shared and not copied.
    std::error_code send(std::string_view bytes) {
        return send_with([=](auto& to) { return to.send_bytes(bytes); });
    }
    std::error_code send(const char* text) { return send(std::string_view(text)); }
    std::error_code send(const std::string& bytes) { return send(std::string_view(bytes)); }
    std::error_code send(std::span<const std::byte> bytes) {
        return send(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    std::error_code send(const received& data) { return send(data.block()); }
    std::error_code send(const CCmMessageBlock& chain) {
        return send_with([&](auto& to) { return to.send_chain(chain); });
    }

    // true: a part of the data taken waits for room, so that the next send would be refused. Stop producing, or pause the
    // source, until on_send. At most the data of one send waits here.
    bool is_full() const noexcept { return endpoint_ && endpoint_->is_full(); }

    // No on_receive until resume(), and no on_end before data that has arrived. TCP then slows the peer; no data is lost. A
    // failure ends the pause of a connection that is full, because no on_send follows.
    void pause() { set_paused(true); }
    void resume() { set_paused(false); }

    // Half-close: the peer gets the end after all data taken, and on_receive continues. Plain tcp only: CM_ERROR_INVALID_ARG.
    // talvo::errc::would_block: is_full().
    std::error_code end_sending() {
        return send_with([](auto& to) { return to.end_sending(); });
    }

    // Ends the connection in order: the peer gets all data taken, for which a peer that does not read has 30 s, and then the
    // end. No callback follows. Abandons a connect under way. No effect after the end.
    void close() {
        if (impl::endpoint* const own = here())
            own->close();
    }

    // Both stay available after the end.
    address local_address() const { return get_address(CM_OPT_TRANSPORT_LOCAL_ADDR); }
    address peer_address() const { return get_address(CM_OPT_TRANSPORT_PEER_ADDR); }
    // The failure of the connect or of the connection, with its text; none after an orderly end.
    CCmFailure failure() const { return endpoint_ ? endpoint_->failure() : CCmFailure(); }
    // The code of on_end; 0 before the end.
    std::error_code error() const noexcept { return endpoint_ ? endpoint_->error() : std::error_code(); }

    //    peer.set(talvo::options::read_size, 65536);
    // Errors as ICmTransport::GetOption and SetOption. CM_ERROR_NOT_INITIALIZED: there is no connection yet.
    template <class T>
    result<T> get(option<T> which) const {
        T value{};
        const CmResult code = native() ? native()->GetOption(which.command, &value) : CM_ERROR_NOT_INITIALIZED;
        if (code != CM_OK)
            return make_error_code(code);
        return value;
    }
    template <class T>
    std::error_code set(option<T> which, std::type_identity_t<T> value) {
        return make_error_code(native() ? native()->SetOption(which.command, &value) : CM_ERROR_NOT_INITIALIZED);
    }

    // For the library's own functions; null: there is no connection yet. This layer is its sink.
    ICmTransport* native() const noexcept { return endpoint_ ? endpoint_->transport() : nullptr; }

private:
    friend class impl::endpoint;
    friend struct impl::maker;

    explicit connection(impl::endpoint* made) : endpoint_(made) { adopt(); }

    void adopt() noexcept {
        if (endpoint_)
            endpoint_->set_owner(this);
    }
    // Null: not connected, or another thread calls.
    impl::endpoint* here() const { return endpoint_ && endpoint_->is_home() ? endpoint_.get() : nullptr; }
    template <class Set>
    connection& set(Set set_one) {
        impl::endpoint* const own = here();
        if (!own || own->is_over())
            return *this;
        set_one(own->callbacks());
        own->read_if_wanted();
        return *this;
    }
    template <class Send>
    std::error_code send_with(Send send_data) {
        return make_error_code(endpoint_ ? endpoint_->send(send_data) : CM_ERROR_NOT_INITIALIZED);
    }
    void set_paused(bool paused) {
        if (impl::endpoint* const own = here())
            own->set_paused(paused);
    }
    address get_address(uint32_t command) const {
        CCmInetAddr found;
        if (native())
            native()->GetOption(command, &found);
        return found;
    }

    impl::handle<impl::endpoint> endpoint_;
};

namespace impl {

inline void endpoint::keep(connection& own) {
    if (!is_over())  // without memory own ends the connection
        kept_ = {new (std::nothrow) connection(std::move(own)), [](connection* last) { delete last; }};
}

struct maker {
    static connection of(endpoint* made) { return connection(made); }
    static connection connect(const result<address>& to, kind type, const connect_options& options) {
        connection made(new endpoint);
        made.endpoint_->connect(to, type, options);
        return made;
    }
    static connection ended(std::error_code code) {
        connection made(new endpoint);
        made.endpoint_->end_at_once(code);
        return made;
    }
    static endpoint* get(const connection& from) { return from.endpoint_.get(); }
};

}  // namespace impl

// Starts to connect; on_open or on_end follows from the loop, after this call. The address is "host:port", "[IPv6]:port" or
// "unix:path"; a name is looked up. The codes of on_end are the reasons of ICmConnector::AsycConnect with their causes, such as
// std::errc::connection_refused and std::errc::timed_out; CM_ERROR_INVALID_ARG: no such address; CM_ERROR_NOT_IMPLEMENTED: no
// such kind. In a thread without an event queue of the library the connection has ended at the return, see error().
//
//    auto peer = talvo::connect("example.org:7000", talvo::package, {.timeout = 3s});
//    peer.on_open([](talvo::connection& self) { self.send("hello"); });
inline connection connect(const address& to, kind type, const connect_options& options = {}) {
    return impl::maker::connect(to, type, options);
}
inline connection connect(std::string_view to, kind type, const connect_options& options = {}) {
    return impl::maker::connect(address::parse(to), type, options);
}

}  // namespace callbacks
}  // namespace talvo
