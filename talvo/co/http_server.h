// HTTP servers of coroutines.
#pragma once

#include "talvo/co/http_client.h"
#include "talvo/co/http_router.h"
#include "talvo/co/listener.h"
#include "talvo/http/server/channel_server.h"

namespace talvo {

namespace detail {

// The sink of one request in a server. Its stream is the body of the request, and that of the answer.
class server_channel final : public stream, public ICmChannelHttpServerSink {
public:
    server_channel(ICmChannelHttpServer& native, http::router::match found)
        : stream(native), native_(&native), found_(std::move(found)) {}

    ICmChannelHttpServer& native() const { return *native_; }
    const http::router::match& found() const { return found_; }

    // Lets the body come; without it a client that expects a 100 (Continue) waits.
    void receive_body() {
        if (std::exchange(receives_, true))
            return;
        const CmResult code = native_->ReceiveRequest(this);
        if (code != CM_OK)
            take_end(make_error_code(code));
    }

    CmResult answer(int status, std::string_view content_type, std::string_view body) {
        return note_answer(native_->AnswerText(status, std::string(content_type), std::string(body)));
    }
    CmResult begin(int status, std::string_view content_type, uint64_t length) {
        CmResult code = native_->SetStatus(status);
        if (code == CM_OK && !content_type.empty())
            code = native_->SetHeader(CCmHttpAtomList::Content_Type, std::string(content_type));
        return code == CM_OK ? note_answer(native_->BeginAnswer(length)) : code;
    }
    // The handler has ended. An answer that was refused is none.
    void end_handler() {
        if (!answered_)
            answer(fault_, "text/plain", fault_ == 413 ? "too long\n" : fault_ == 400 ? "not understood\n" : "failed\n");
    }
    void note_fault(int status) { fault_ = status; }

private:
    CmResult note_answer(CmResult code) {
        answered_ |= code == CM_OK;
        return code;
    }
    void OnReceive(CCmMessageBlock& data, ICmTransport*, CCmTransportParameter*) override { take_data(data); }
    void OnRequestEnd(ICmChannelHttpServer*) override { take_half_end(); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { take_room(); }
    void OnDisconnect(CmResult reason, ICmTransport*) override { take_end(make_error_code(reason)); }

    ICmChannelHttpServer* native_;  // held by the stream
    const http::router::match found_;
    bool receives_ = false;
    bool answered_ = false;
    int fault_ = 500;  // the status if the handler gives no answer
};

}  // namespace detail

namespace http {

// A request in a server, for its handler, and the answer to it. Its destruction abandons an answer that has begun and is not
// complete; the server answers a request without an answer. One that was moved from is empty: its operations fail with
// CM_ERROR_NOT_INITIALIZED.
class incoming : public sender<detail::server_channel> {
public:
    // For the server.
    explicit incoming(CCmRefPtrT<detail::server_channel> channel) noexcept : sender(std::move(channel)) {}
    incoming(incoming&&) noexcept = default;
    incoming& operator=(incoming&&) noexcept = default;

    // "GET". Another method than those of HTTP is in the spelling of its first use in the process, see request: compare it
    // without regard to case.
    std::string_view method() const { return channel_ ? static_cast<const char*>(request().GetMethod()) : ""; }
    // As received.
    std::string_view target() const { return channel_ ? std::string_view(request().GetRequestURI()) : ""; }
    // Decoded.
    std::string_view param(std::string_view name) const { return found().params.get(name); }
    const fields& query() const { return found().query; }
    // "": none.
    std::string header(std::string_view name) const { return channel_ ? detail::header_value(request(), name) : ""; }
    // The client.
    address peer_address() const {
        CCmInetAddr peer;
        if (channel_)
            native()->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &peer);
        return peer;
    }

    // co_await gives a result<message>: the next piece of the body; no value and an error of 0: it was complete. The client
    // waits for a handler that does not receive. With a stop token, here and below, also std::errc::operation_canceled.
    auto receive() {
        if (channel_)
            channel_->receive_body();
        return detail::receive_awaiter(channel_);
    }
    auto receive(std::stop_token token) { return with_stop(std::move(token), receive()); }
    // The whole body. std::errc::message_size: more than most bytes; without another answer the server answers 413.
    task<result<std::string>> body(std::size_t most = MOST) {
        const CCmRefPtrT<detail::server_channel> channel = channel_;
        std::string whole;
        result<message> piece;
        while ((piece = co_await receive())) {
            if (piece->size() > most - whole.size()) {
                channel->note_fault(413);
                co_return std::error_code(EMSGSIZE, category());
            }
            whole += piece->str();
        }
        if (piece.error())
            co_return piece.error();
        co_return whole;
    }
    auto body(std::size_t most, std::stop_token token) { return with_stop(std::move(token), body(most)); }
    // The fields of a form in the body, application/x-www-form-urlencoded. Errors as body; those of fields::parse give 400.
    task<result<fields>> form(std::size_t most = MOST) {
        const CCmRefPtrT<detail::server_channel> channel = channel_;
        const auto text = co_await body(most);
        if (!text)
            co_return text.error();
        auto parsed = fields::parse(*text);
        if (!parsed)
            channel->note_fault(400);
        co_return parsed;
    }
    auto form(std::size_t most, std::stop_token token) { return with_stop(std::move(token), form(most)); }

    // A header of the answer, before it. CM_ERROR_INVALID_ARG: as ICmChannelHttpServer::SetHeader.
    result<> set_header(std::string_view name, std::string_view value) {
        const CCmHttpAtom atom = detail::header_name(name);
        return apply(
            [&](auto& channel) { return atom ? channel.native().SetHeader(atom, std::string(value)) : CM_ERROR_INVALID_ARG; });
    }
    // The whole answer, which the library delivers. CM_ERROR_NOT_INITIALIZED: the client has gone. CM_ERROR_NOT_AVAILABLE: an
    // answer has begun.
    result<> respond(int status, std::string_view content_type = {}, std::string_view body = {}) {
        return apply([&](auto& channel) { return channel.answer(status, content_type, body); });
    }

    // An answer in pieces: begin, send (see sender) as often as there is data, finish. Without a length it is sent in
    // chunks.
    result<> begin(int status, std::string_view content_type = {}, uint64_t length = ICmChannelHttpServer::UNKNOWN_LENGTH) {
        return apply([&](auto& channel) {
            channel.receive_body();
            return channel.begin(status, content_type, length);
        });
    }
    using sender::send;
    result<> finish() {
        return apply([](auto& channel) { return channel.native().EndAnswer(); });
    }

    // For the library's own functions; null: moved away. The layer is its sink.
    ICmChannelHttpServer* native() const { return channel_ ? &channel_->native() : nullptr; }

private:
    static constexpr std::size_t MOST = 1024 * 1024;  // bytes of a body

    const CCmHttpRequestHead& request() const { return channel_->native().GetRequest(); }
    const router::match& found() const {
        static const router::match NONE;
        return channel_ ? channel_->found() : NONE;
    }
    template <class Operation>
    result<> apply(Operation operation) {
        return make_error_code(channel_ ? operation(*channel_) : CM_ERROR_NOT_INITIALIZED);
    }
};

// How to serve.
struct server_options {
    const tls_context* tls = nullptr;       // https, with a certificate
    uint64_t max_body = 64u * 1024 * 1024;  // a longer body of a request is answered with 413
    uint32_t max_connections = 10000;       // a connection beyond it is closed at once
};

// Serves the routes on one address, in the thread that starts it. Its destruction closes everything and cancels the handlers.
class server final : private ICmChannelServerAcceptorSink {
public:
    // failed gets the exceptions of handlers, which are answered with 500; without it each is a line of the trace.
    explicit server(std::function<void(std::exception_ptr)> failed = {})
        : tasks_(failed ? std::move(failed) : detail::trace_exception) {}
    ~server() override {
        tasks_.cancel();
        acceptor_.Reset();
    }

    // Once. CM_ERROR_INVALID_ARG: no such address, or a host name; or that of the router, see router::on. Other errors: those
    // of ICmChannelServerAcceptor::StartListen.
    result<> listen(std::string_view at, router routes, const server_options& options = {}) {
        if (acceptor_)
            return make_error_code(CM_ERROR_ALREADY_INITIALIZED);
        failure_ = {};
        const auto parsed = address::parse(at);
        if (!parsed || !parsed->native().IsResolved() || routes.error())
            return make_error_code(CM_ERROR_INVALID_ARG);
        routes_ = std::move(routes);
        CmResult code = CCmChannelManager::Instance()->CreateHttpAcceptor(acceptor_.ParaOut());
        if (code == CM_OK)
            code = set_options(options);
        if (code == CM_OK)
            code = acceptor_->StartListen(this, parsed->native());
        if (code != CM_OK && acceptor_)
            acceptor_->GetOption(CM_OPT_CONNECT_FAILURE, &failure_);
        if (code != CM_OK)
            acceptor_.Reset();
        return make_error_code(code, failure_);
    }

    // Ends gracefully: requests that have begun are answered.
    void stop() {
        if (acceptor_)
            acceptor_->StopListen(CM_OK);
    }
    address local_address() const { return detail::bound_address(acceptor_.Get()); }
    const CCmFailure& failure() const noexcept { return failure_; }

private:
    CmResult set_options(const server_options& options) {
        uint64_t max_body = options.max_body;
        uint32_t max_connections = options.max_connections;
        CmResult code = acceptor_->SetOption(CM_OPT_CHANNEL_SERVER_MAX_BODY, &max_body);
        if (code == CM_OK)
            code = acceptor_->SetOption(CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS, &max_connections);
        if (code == CM_OK && options.tls) {
            CCmRefPtrT<CCmSslContext> context = options.tls->native();
            code = acceptor_->SetOption(CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, &context);
        }
        return code;
    }

    void OnRequest(ICmChannelHttpServer* native, ICmChannelServerAcceptor*) override {
        try {
            const CCmHttpRequestHead& head = native->GetRequest();
            router::match found = routes_.find(static_cast<const char*>(head.GetMethod()), head.GetRequestURI());
            if (!found.serve)
                return refuse(*native, found);
            tasks_.spawn(serve(CCmRefPtrT<detail::server_channel>(new detail::server_channel(*native, std::move(found)))));
        } catch (...) {
            detail::trace_exception(std::current_exception());
        }
    }

    static void refuse(ICmChannelHttpServer& native, const router::match& found) {
        if (!found.allow.empty())
            native.SetHeader(detail::header_name("Allow"), found.allow);
        const std::string text = found.status == 204   ? ""
                                 : found.status == 404 ? "not found\n"
                                 : found.status == 405 ? "method not allowed\n"
                                                       : "not understood\n";
        native.AnswerText(found.status, text.empty() ? "" : "text/plain", text);
    }

    static task<> serve(CCmRefPtrT<detail::server_channel> channel) {
        std::exception_ptr failed;
        try {
            co_await (*channel->found().serve)(incoming(channel));
        } catch (...) {
            failed = std::current_exception();
        }
        channel->end_handler();
        if (failed)
            std::rethrow_exception(failed);
    }

    router routes_;  // outlives its handlers
    CCmFailure failure_;
    CCmRefPtrT<ICmChannelServerAcceptor> acceptor_;
    task_group tasks_;
};

}  // namespace http
}  // namespace talvo
