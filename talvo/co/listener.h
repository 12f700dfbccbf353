// Accepts connections.
#pragma once

#include "talvo/base/trace.h"
#include "talvo/co/connect.h"
#include "talvo/co/task_group.h"

namespace talvo {

namespace detail {

// One trace line for an exception that no coroutine awaits.
inline void trace_exception(std::exception_ptr exception) noexcept {
    try {
        std::rethrow_exception(std::move(exception));
    } catch (const std::exception& error) {
        CM_ERROR_TRACE("a detached task has ended with an exception. what=" << error.what());
    } catch (...) {
        CM_ERROR_TRACE("a detached task has ended with an exception.");
    }
}

}  // namespace detail

// Listens, and runs a coroutine for each connection, in the thread that starts it. Its destruction stops listening and cancels
// the coroutines, which disconnects their connections. application::listen makes listeners; in other threads, and in simulated
// networks, they are objects of their own.
class listener final : private ICmAcceptorConnectorSink {
public:
    using handler = std::function<task<>(connection)>;  // called for each connection

    // failed gets the exceptions of the coroutines, and those of handlers that make none; without it each is a line of the
    // trace.
    explicit listener(std::function<void(std::exception_ptr)> failed = {})
        : tasks_(failed ? std::move(failed) : detail::trace_exception) {}
    ~listener() override { stop(); }

    // CM_ERROR_INVALID_ARG: no such address, or a host name. CM_ERROR_ALREADY_INITIALIZED: it listens, or coroutines of an
    // earlier listen run. CM_ERROR_NOT_IMPLEMENTED: no such kind. Other errors: the system's, such as
    // std::errc::address_in_use, and those of ICmAcceptor::StartListen. Port 0: the system chooses a port. The handler, a
    // lambda with its captures for example, is kept as long as its coroutines.
    result<> listen(const address& at, kind type, handler serve, const listen_options& options = {}) {
        if (acceptor_ || tasks_.size() > 0)
            return make_error_code(CM_ERROR_ALREADY_INITIALIZED);
        serve_ = std::move(serve);
        type_ = type;
        max_connections_ = options.max_connections;
        CmResult code = at.native().IsResolved() ? detail::make_native(type, options, acceptor_) : CM_ERROR_INVALID_ARG;
        if (code == CM_OK)
            code = acceptor_->StartListen(this, at.native());
        failure_ = code == CM_OK ? CCmFailure() : detail::listen_failure(acceptor_.Get());
        if (code != CM_OK)
            acceptor_.Reset();
        return make_error_code(code, failure_);
    }
    result<> listen(std::string_view at, kind type, handler serve, const listen_options& options = {}) {
        const auto parsed = address::parse(at);
        return parsed ? listen(*parsed, type, std::move(serve), options) : result<>(parsed.error());
    }

    // Accepts no more connections; the coroutines continue.
    void stop() {
        if (acceptor_)
            acceptor_->StopListen(CM_OK);
        acceptor_.Reset();
    }

    bool is_listening() const noexcept { return static_cast<bool>(acceptor_); }  // after listen and before stop
    // The bound address; none if it does not listen.
    address local_address() const { return detail::bound_address(acceptor_.Get()); }
    // Why the last listen failed, with the system's errno.
    const CCmFailure& failure() const noexcept { return failure_; }
    task_group& tasks() noexcept { return tasks_; }

private:
    void OnConnectIndication(CmResult reason, ICmTransport* transport, ICmAcceptorConnectorId*) override {
        if (reason != CM_OK || (max_connections_ > 0 && tasks_.size() >= max_connections_))
            return;
        try {
            const CCmRefPtrT<detail::channel> opened(new detail::channel(*transport));
            if (opened->open(type_.is_plain_tcp()) == CM_OK)
                tasks_.spawn(serve_(connection(opened)));
        } catch (...) {
            tasks_.fail(std::current_exception());
        }
    }

    handler serve_;  // outlives its coroutines
    kind type_ = tcp;
    std::size_t max_connections_ = 0;
    CCmFailure failure_;
    CCmRefPtrT<ICmAcceptor> acceptor_;
    task_group tasks_;
};

}  // namespace talvo
