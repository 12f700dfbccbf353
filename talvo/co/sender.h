// The sending side of connections and HTTP exchanges.
#pragma once

#include <span>

#include "talvo/co/combine.h"
#include "talvo/co/stream.h"

namespace talvo {

// The operations that these classes share, which derive from it. Of an object that was moved from they fail with
// CM_ERROR_NOT_INITIALIZED.
template <class Channel>
class sender {
public:
    // co_await gives a result<> when everything was taken, which may take as long as the peer needs: nothing grows meanwhile.
    // The bytes must stay until then; an argument of the awaiting expression itself does. Nothing is consumed: the same message
    // may go to many connections, and its payload is shared. CM_ERROR_INVALID_ARG: a datagram or message is too long.
    // CM_ERROR_NETWORK_SOCKET_CLOSE: the connection has ended. The others as for receive.
    // With a stop token as the last argument also std::errc::operation_canceled. A send that is cancelled may have been taken
    // in part on a stream: close the connection then.
    auto send(std::string_view bytes) { return detail::send_awaiter(channel_, detail::outgoing(bytes)); }
    auto send(const char* text) { return send(std::string_view(text)); }
    auto send(const std::string& bytes) { return send(std::string_view(bytes)); }
    auto send(std::span<const std::byte> bytes) {
        return send(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    auto send(const message& whole) { return detail::send_awaiter(channel_, detail::outgoing(whole)); }
    auto send(const CCmMessageBlock& chain) { return detail::send_awaiter(channel_, detail::outgoing(chain)); }
    template <class Data>
    auto send(const Data& data, std::stop_token token) {
        return with_stop(std::move(token), send(data));
    }

protected:
    sender() noexcept = default;
    explicit sender(CCmRefPtrT<Channel> channel) noexcept : channel_(std::move(channel)) {}

    CCmRefPtrT<Channel> channel_;  // null: moved from
};

}  // namespace talvo
