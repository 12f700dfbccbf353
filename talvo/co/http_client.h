// HTTP clients of coroutines.
#pragma once

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "talvo/co/connection.h"
#include "talvo/co/stream.h"
#include "talvo/http/channel/channel_http_client_interface.h"
#include "talvo/http/channel/channel_options.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_url.h"

namespace talvo {

namespace detail {

// A header's name; null: not a name, or the table of names is full.
inline CCmHttpAtom header_name(std::string_view name) {
    CCmHttpAtomList* const names = CCmHttpAtomList::Instance();
    return names ? names->ResolveAtom(name, 1) : CCmHttpAtom();
}
inline std::string header_value(const CCmHttpHeaderArray& head, std::string_view name) {
    const CCmHttpAtom atom = CCmHttpAtomList::Instance() ? CCmHttpAtomList::Instance()->ResolveAtom(name, 0) : CCmHttpAtom();
    const CCmString* const found = atom ? head.FindHeader(atom) : nullptr;
    return found ? *found : std::string();
}

class head_awaiter;

// The sink of an HTTP exchange. Its stream is the body of the request, and that of the answer.
class client_channel final : public stream, public ICmChannelSink {
public:
    explicit client_channel(ICmChannelHttpClient& native) : stream(native), native_(&native) {}

    ICmChannelHttpClient& native() const { return *native_; }
    CmResult open() { return native_->AsyncOpen(this); }

private:
    friend class head_awaiter;

    inline void OnConnect(CmResult reason, ICmChannel* native) override;
    void OnReceive(CCmMessageBlock& data, ICmTransport*, CCmTransportParameter*) override { take_data(data); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { take_room(); }
    inline void OnDisconnect(CmResult reason, ICmTransport*) override;

    std::error_code error_of(CmResult reason) const {
        if (reason == CM_OK)
            return {};
        CCmString text;
        const CmResult cause = native_->GetFailure(text);
        CCmFailure failure;
        native_->GetOption(CM_OPT_CHANNEL_LAST_FAILURE, &failure);
        return make_error_code(cause == CM_OK ? reason : cause, failure);
    }
    inline void end_head(std::error_code error);

    ICmChannelHttpClient* native_;  // held by the stream
    bool has_head_ = false;
    std::error_code head_error_;  // why no head came
    head_awaiter* waiter_ = nullptr;
};

class [[nodiscard]] head_awaiter {
public:
    explicit head_awaiter(CCmRefPtrT<client_channel> from) noexcept : channel_(std::move(from)) {}
    head_awaiter(head_awaiter&&) noexcept = default;  // before it is awaited only
    ~head_awaiter() {
        if (channel_ && channel_->waiter_ == this)
            channel_->waiter_ = nullptr;
    }

    bool await_ready() noexcept { return !channel_ || channel_->waiter_ || channel_->has_head_ || channel_->head_error_; }
    void await_suspend(std::coroutine_handle<> awaiting) noexcept {
        awaiting_ = awaiting;
        channel_->waiter_ = this;
    }
    result<int> await_resume() noexcept {
        if (!channel_ || (!channel_->has_head_ && !channel_->head_error_))
            return make_error_code(channel_ ? CM_ERROR_ALREADY_INITIALIZED : CM_ERROR_NOT_INITIALIZED);
        if (!channel_->has_head_)
            return channel_->head_error_;
        return static_cast<int>(channel_->native_->GetResponseStatus());
    }

private:
    friend class client_channel;

    CCmRefPtrT<client_channel> channel_;
    std::coroutine_handle<> awaiting_;
};

inline void client_channel::end_head(std::error_code error) {
    has_head_ = !error;
    head_error_ = error;
    if (head_awaiter* const waiter = std::exchange(waiter_, nullptr))
        waiter->awaiting_.resume();
}

inline void client_channel::OnConnect(CmResult reason, ICmChannel*) {
    const CCmRefPtrT<client_channel> guard(this);
    end_head(reason == CM_OK ? std::error_code() : error_of(reason));
}

inline void client_channel::OnDisconnect(CmResult reason, ICmTransport*) {
    const CCmRefPtrT<client_channel> guard(this);
    const std::error_code error = error_of(reason);
    if (!has_head_ && !head_error_)
        end_head(error ? error : make_error_code(CM_ERROR_NETWORK_HTTP_FAILURE));
    take_end(error);
}

}  // namespace detail

namespace http {

// A header of a request.
struct header {
    std::string_view name;   // in any case
    std::string_view value;  // without CR and LF
};

// A request. What its members refer to must stay until it has been sent; trivial, see connect_options.
//
// The library compares methods and names of headers without regard to case, and keeps one spelling of each. Those of HTTP have
// the usual one ("GET", "Content-Type"). Any other has that of its first use in the process, also by a peer: "purge" leaves as
// "PURGE" if that text came first. A server that distinguishes them may then refuse the method.
struct request {
    std::string_view url = {};             // http or https; a port is 1 to 65,535
    std::string_view method = "GET";       // a token, see above
    std::span<const header> headers = {};  // besides those that the library sets
    std::string_view content_type = {};    // "": none
    std::string_view body = {};            // the whole body
    bool streamed = false;                 // instead of body: exchange::send, in chunks, and exchange::end_sending
    std::chrono::nanoseconds silence{0};   // the longest wait for progress of the server; 0: 60 s
    unsigned redirects = 10;               // the most that are followed; 0: they are answers
    bool proxy = false;                    // through the proxies of the user's settings
    const tls_context* tls = nullptr;      // https; null: the system's trust
    std::size_t most = 64 * 1024 * 1024;   // of fetch and get: a longer body of the answer is an error
};

static_assert(std::is_trivially_copyable_v<request>);

// An answer with its whole body.
class response {
public:
    response() = default;
    // For fetch.
    response(int status, CCmHttpResponseHead head) : status_(status), head_(std::move(head)) {}

    int status() const noexcept { return status_; }                                                // 200, 404, ...
    bool ok() const noexcept { return status_ >= 200 && status_ < 300; }                           // the status is 2xx
    std::string header(std::string_view name) const { return detail::header_value(head_, name); }  // "": none
    const std::string& body() const& noexcept { return body_; }                                    // the whole body
    std::string&& body() && noexcept { return std::move(body_); }                                  // likewise
    std::string& mutable_body() noexcept { return body_; }                                         // for fetch

private:
    int status_ = 0;
    CCmHttpResponseHead head_;
    std::string body_;
};

// A request and its answer, with streamed bodies. Its destruction cancels it.
//
//    auto call = talvo::http::start({.url = url, .method = "PUT", .streamed = true});
//    while (auto piece = co_await source.receive())
//        co_await call->send(*piece);
//    call->end_sending();
//    auto status = co_await call->head();
//    while (auto piece = co_await call->receive()) ...
class exchange : public sender<detail::client_channel> {
public:
    exchange() noexcept = default;
    exchange(exchange&&) noexcept = default;
    // Cancels the exchange that is replaced.
    exchange& operator=(exchange&& other) noexcept {
        exchange taken(std::move(other));
        std::swap(channel_, taken.channel_);
        return *this;
    }
    ~exchange() {
        if (channel_)
            channel_->close();
    }

    // The request's body in pieces, each a chunk; see sender. An answer may come before its end.
    using sender::send;
    // CM_ERROR_NOT_AVAILABLE: no such body is in progress. talvo::errc::would_block: a send is under way.
    result<> end_sending() {
        if (channel_ && channel_->end_error() == make_error_code(CM_ERROR_WOULD_BLOCK))
            return channel_->end_error();
        return make_error_code(channel_ ? channel_->native().EndRequestBody() : CM_ERROR_NOT_INITIALIZED);
    }

    // co_await gives a result<int>: the status, when the head of the answer has come. Errors: as ICmChannelHttpClient, with the
    // cause, such as std::errc::connection_refused.
    auto head() { return detail::head_awaiter(channel_); }
    auto head(std::stop_token token) { return with_stop(std::move(token), head()); }
    // After the head; "": no such header.
    std::string header(std::string_view name) const {
        return channel_ ? detail::header_value(channel_->native().GetResponseHead(), name) : std::string();
    }

    // co_await gives a result<message>: the next piece of the answer's body. No value and an error of 0: it was complete. The
    // server waits for a coroutine that does not receive, see connection::receive.
    auto receive() { return detail::receive_awaiter(channel_); }
    auto receive(std::stop_token token) { return with_stop(std::move(token), receive()); }

    // For the library's own functions; null: moved away. The layer is its sink.
    ICmChannelHttpClient* native() const noexcept { return channel_ ? &channel_->native() : nullptr; }

private:
    friend result<exchange> start(const request& what);
};

}  // namespace http

namespace detail {

// The port of a URL that CCmHttpUrl has taken is missing, or 1 to 65,535. CCmHttpUrl makes a port of any text.
inline bool has_valid_port(std::string_view url) {
    std::string_view authority = url.substr(url.find("://") + 3);
    authority = authority.substr(0, authority.find('/'));
    const std::size_t colon = authority.find(':', authority.starts_with('[') ? authority.find(']') : 0);
    if (colon == authority.npos || colon + 1 == authority.size())
        return true;
    const char* const end = authority.data() + authority.size();
    uint16_t port = 0;
    const auto [last, error] = std::from_chars(authority.data() + colon + 1, end, port);
    return error == std::errc() && last == end && port > 0;
}

inline CmResult set_headers(ICmChannelHttpClient& native, const http::request& what) {
    const auto set = [&](CCmHttpAtom name, std::string_view value) {
        return name ? native.SetRequestHeader(name, std::string(value)) : CM_ERROR_INVALID_ARG;
    };
    CmResult code = native.SetRequestMethod(header_name(what.method));
    for (const http::header& each : what.headers) {
        if (code == CM_OK)
            code = set(header_name(each.name), each.value);
    }
    if (code == CM_OK && !what.content_type.empty())
        code = set(CCmHttpAtomList::Content_Type, what.content_type);
    if (code == CM_OK && what.streamed)
        code = set(CCmHttpAtomList::Transfer_Encoding, "chunked");
    return code;
}

inline CmResult set_body(ICmChannelHttpClient& native, std::string_view body) {
    if (body.empty())
        return CM_OK;
    if (body.size() >= CCmMessageBlock::MOST_LENGTH)
        return CM_ERROR_INVALID_ARG;
    const auto length = static_cast<uint32_t>(body.size());
    return native.SetRequestBody(CCmMessageBlock(length, body.data(), CCmMessageBlock::DONT_DELETE, length));
}

inline CmResult set_options(ICmChannelHttpClient& native, const http::request& what) {
    uint32_t redirects = what.redirects;
    CmResult code = native.SetOption(CM_OPT_CHANNEL_MAX_REDIRECTS, &redirects);
    const int64_t wait = std::chrono::ceil<std::chrono::milliseconds>(what.silence).count();
    auto silence = static_cast<uint32_t>(std::clamp<int64_t>(wait, 0, UINT32_MAX));
    if (code == CM_OK && silence > 0)
        code = native.SetOption(CM_OPT_CHANNEL_SILENCE_TIMEOUT, &silence);
    if (code == CM_OK && what.tls) {
        CCmRefPtrT<CCmSslContext> context = what.tls->native();
        code = native.SetOption(CM_OPT_CHANNEL_SSL_CONTEXT, &context);
    }
    return code;
}

}  // namespace detail

namespace http {

// Begins an exchange in the calling thread, over a connection that is kept for the next ones. talvo::errc::invalid_argument: no
// such URL, method or header. The other errors are those of CCmChannelManager and ICmChannelHttpClient.
inline result<exchange> start(const request& what) {
    CCmChannelManager& manager = *CCmChannelManager::Instance();
    CCmRefPtrT<CCmHttpUrl> url;
    CCmRefPtrT<ICmChannelHttpClient> native;
    CmResult code = manager.CreateUrl(url.ParaOut(), std::string(what.url));
    if (code == CM_OK && !detail::has_valid_port(what.url))
        code = CM_ERROR_INVALID_ARG;
    if (code == CM_OK)
        code = manager.CreateChannelHttpClient(native.ParaOut(), url.Get(), what.proxy ? CCmChannelManager::BROWSER_PROXY : 0);
    if (code == CM_OK)
        code = detail::set_headers(*native, what);
    if (code == CM_OK)
        code = detail::set_body(*native, what.body);
    if (code == CM_OK)
        code = detail::set_options(*native, what);
    if (code != CM_OK)
        return make_error_code(code == CM_ERROR_FAILURE ? CM_ERROR_INVALID_ARG : code);
    exchange begun;
    begun.channel_ = new detail::client_channel(*native);
    code = begun.channel_->open();
    if (code != CM_OK)
        return make_error_code(code);
    return begun;
}

// co_await gives a result<response>: the answer, whatever its status, with its whole body. Errors as exchange::head; and
// std::errc::message_size: the body is longer than most.
//
//    auto answer = co_await talvo::http::fetch({.url = url, .method = "POST", .body = text});
inline task<result<response>> fetch(request what) {
    auto begun = start(what);
    if (!begun)
        co_return begun.error();
    const auto status = co_await begun->head();
    if (!status)
        co_return status.error();
    response whole(*status, begun->native()->GetResponseHead());
    result<message> piece;
    while ((piece = co_await begun->receive())) {
        if (piece->size() > what.most - whole.body().size())
            co_return std::error_code(EMSGSIZE, category());
        whole.mutable_body() += piece->str();
    }
    if (piece.error())
        co_return piece.error();
    co_return whole;
}

// A GET.
inline task<result<response>> get(std::string url) {
    request what;
    what.url = url;
    co_return co_await fetch(what);
}

// With a stop token also std::errc::operation_canceled; the exchange has ended then.
inline auto fetch(const request& what, std::stop_token token) { return with_stop(std::move(token), fetch(what)); }
inline auto get(std::string url, std::stop_token token) { return with_stop(std::move(token), get(std::move(url))); }

}  // namespace http
}  // namespace talvo
