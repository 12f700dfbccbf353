// Accepts connections, with a callback.
#pragma once

#include "talvo/callbacks/connection.h"

namespace talvo {
inline namespace callbacks {

namespace impl {

// The sink behind a listener.
class acceptor final : public resident, private ICmAcceptorConnectorSink {
public:
    template <class Function>
    CmResult listen(const result<address>& at, kind type, Function accept, const listen_options& options) {
        if (has_home() && !is_home())
            return CM_ERROR_FAILURE;
        if (native_)
            return CM_ERROR_ALREADY_INITIALIZED;
        if (!at || !at->native().IsResolved())
            return at ? CM_ERROR_INVALID_ARG : at.error().value();
        accept_ = std::move(accept);
        most_ = options.max_connections;
        CmResult code = talvo::detail::make_native(type, options, native_);
        if (code == CM_OK)
            code = native_->StartListen(this, at->native());
        if (code == CM_OK)
            return CM_OK;
        failure_ = talvo::detail::listen_failure(native_.Get());
        stop();
        return code;
    }

    void stop() {
        if (const CCmRefPtrT<ICmAcceptor> last = std::move(native_))
            last->StopListen(CM_OK);
        accept_.clear();
    }

    ICmAcceptor* native() const noexcept { return native_.Get(); }
    const CCmFailure& failure() const noexcept { return failure_; }

    void abandon() override { stop(); }

private:
    ~acceptor() override = default;

    void OnConnectIndication(CmResult reason, ICmTransport* transport, ICmAcceptorConnectorId*) override {
        if (reason != CM_OK || (most_ > 0 && static_cast<std::size_t>(places_.use_count()) > most_))
            return;
        const CCmRefPtrT<acceptor> guard(this);
        const call_scope scope(*this);
        const CCmRefPtrT<endpoint> accepted(scope ? new (std::nothrow) endpoint : nullptr);
        if (!accepted)
            return;
        accepted->adopt(transport, places_);
        connection peer = maker::of(accepted.Get());
        accept_(peer);
        if (maker::get(peer))
            accepted->keep(peer);
        accepted->open();
    }

    // Not the transport of an acceptor whose thread has ended.
    void OnThreadEnd() override {
        const CCmRefPtrT<acceptor> guard(this);
        accept_.clear();
        native_.Reset();
    }

    callable<connection&> accept_;
    std::size_t most_ = 0;                                           // connections that have not ended; 0: no limit
    const std::shared_ptr<char> places_ = std::make_shared<char>();  // each of them shares it
    CCmFailure failure_;
    CCmRefPtrT<ICmAcceptor> native_;
};

}  // namespace impl

// Listens, in the thread that starts it, which is one of the library's with an event queue; connections and callbacks belong to
// that thread. Its destruction stops it; connections that were accepted stay. It may be destroyed inside its own callback.
class listener {
public:
    listener() noexcept = default;

    // Starts to listen. accept(connection&) is called for each connection, before it receives: set its callbacks there. Move
    // the connection away to own it; otherwise it lives until its end, or until close(). CM_ERROR_INVALID_ARG: no such address,
    // or a host name. CM_ERROR_NULL_POINTER: the thread has no event queue of the library. CM_ERROR_ALREADY_INITIALIZED: it
    // listens. Other codes are those of ICmAcceptor::StartListen with their causes, such as std::errc::address_in_use;
    // CM_ERROR_NOT_IMPLEMENTED: no such kind. CM_ERROR_FAILURE: it belongs to another thread, the first that listened. Port 0:
    // the system chooses a port. Connections beyond options.max_connections that have not ended are closed at once.
    template <class Function>
    std::error_code listen(const result<address>& at, kind type, Function accept, const listen_options& options = {}) {
        if (!acceptor_)
            acceptor_ = impl::handle<impl::acceptor>(new impl::acceptor);
        const CmResult code = acceptor_->listen(at, type, std::move(accept), options);
        return make_error_code(code, code == CM_OK ? CCmFailure() : acceptor_->failure());
    }
    template <class Function>
    std::error_code listen(std::string_view at, kind type, Function accept, const listen_options& options = {}) {
        return listen(address::parse(at), type, std::move(accept), options);
    }

    // Accepts no more connections. It may listen again. In another thread it has no effect.
    void stop() {
        if (acceptor_ && acceptor_->is_home())
            acceptor_->stop();
    }

    explicit operator bool() const noexcept { return acceptor_ && acceptor_->native(); }  // it listens
    // The bound address; none if it does not listen.
    address local_address() const { return talvo::detail::bound_address(acceptor_ ? acceptor_->native() : nullptr); }
    // Why the last listen failed, with its text.
    CCmFailure failure() const { return acceptor_ ? acceptor_->failure() : CCmFailure(); }

private:
    impl::handle<impl::acceptor> acceptor_;
};

}  // namespace callbacks
}  // namespace talvo
