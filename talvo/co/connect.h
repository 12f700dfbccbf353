// Opens connections.
#pragma once

#include "talvo/co/connection.h"
#include "talvo/co/loop_timer.h"
#include "talvo/co/native.h"
#include "talvo/co/task.h"

namespace talvo {

namespace detail {

class [[nodiscard]] connect_awaiter final : private ICmAcceptorConnectorSink {
public:
    connect_awaiter(result<address> to, kind type, const connect_options& options)
        : to_(std::move(to)), type_(type), options_(options) {}
    connect_awaiter(connect_awaiter&& other)  // before it is awaited only
        : to_(std::move(other.to_)), type_(other.type_), options_(other.options_) {}
    ~connect_awaiter() override {
        if (awaiting_)
            connector_->CancelConnect();
    }

    bool await_ready() {
        if (!to_) {
            outcome_ = to_.error();
            return true;
        }
        const CmResult code = make_native(type_, options_, connector_);
        if (code != CM_OK)
            outcome_ = make_error_code(code);
        return code != CM_OK;
    }
    TALVO_CO_AWAIT void await_suspend(std::coroutine_handle<> awaiting) {
        awaiting_ = awaiting;
        CCmTimeValue timeout = time_of(options_.timeout);
        CCmInetAddr from;
        if (options_.from)
            from = options_.from->native();
        connector_->AsycConnect(this, to_->native(), options_.timeout.count() > 0 ? &timeout : nullptr,
                                options_.from ? &from : nullptr);
    }
    result<connection> await_resume() noexcept { return std::move(outcome_); }

private:
    void OnConnectIndication(CmResult reason, ICmTransport* transport, ICmAcceptorConnectorId*) override {
        if (reason == CM_OK)
            reason = open(*transport);
        CCmFailure failure;
        if (reason != CM_OK) {
            cm_get_connect_options(connector_.Get())->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
            outcome_ = make_error_code(reason, failure);
        }
        std::exchange(awaiting_, nullptr).resume();
    }

    CmResult open(ICmTransport& transport) {
        const CCmRefPtrT<channel> opened(new (std::nothrow) channel(transport));
        if (!opened)
            return CM_ERROR_OUT_OF_MEMORY;
        const CmResult code = opened->open(type_.is_plain_tcp());
        if (code == CM_OK)
            outcome_ = connection(opened);
        return code;
    }

    result<address> to_;
    kind type_;
    connect_options options_;
    CCmRefPtrT<ICmConnector> connector_;
    result<connection> outcome_;
    std::coroutine_handle<> awaiting_;
};

}  // namespace detail

// co_await gives a result<connection>. The address is "host:port", "[IPv6]:port" or "unix:path"; a name is looked up. The
// errors are the system's, such as std::errc::connection_refused; std::errc::timed_out; or the reasons of
// ICmConnector::AsycConnect. CM_ERROR_INVALID_ARG: no such address. CM_ERROR_NOT_IMPLEMENTED: no such kind.
// CM_ERROR_NULL_POINTER: the thread has no event queue. With a stop token also std::errc::operation_canceled.
//
//    auto peer = co_await talvo::connect("example.org:7000", talvo::package, {.timeout = 3s});
inline auto connect(const address& to, kind type, const connect_options& options = {}) {
    return detail::connect_awaiter(to, type, options);
}
inline auto connect(std::string_view to, kind type, const connect_options& options = {}) {
    return detail::connect_awaiter(address::parse(to), type, options);
}
template <class Address>
auto connect(const Address& to, kind type, const connect_options& options, std::stop_token token) {
    return with_stop(std::move(token), connect(to, type, options));
}

}  // namespace talvo
