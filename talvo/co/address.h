// The address of an endpoint, in standard spelling.
#pragma once

#include <string>
#include <string_view>

#include "talvo/base/inet_addr.h"
#include "talvo/co/result.h"

namespace talvo {

// A value: "host:port", "[IPv6]:port" or "unix:path". A name stays a name until a connection is made. Copies may throw
// std::bad_alloc.
class address {
public:
    address() = default;                                         // none
    address(CCmInetAddr native) : native_(std::move(native)) {}  // the library's type

    // CM_ERROR_INVALID_ARG: another form, see CCmInetAddr::Parse. CM_ERROR_OUT_OF_MEMORY.
    static result<address> parse(std::string_view text) {
        address parsed;
        const CmResult code = CCmInetAddr::Parse(text, parsed.native_);
        if (code != CM_OK)
            return make_error_code(code);
        return parsed;
    }

    // The text as parse takes it, its host, the port (0 of a path), and the library's type.
    std::string to_string() const { return cm_address_text(native_); }
    std::string host() const { return native_.GetIpDisplayName(); }
    uint16_t port() const { return native_.GetPort(); }
    const CCmInetAddr& native() const noexcept { return native_; }

    // As those of CCmInetAddr.
    bool operator==(const address& other) const { return native_ == other.native_; }
    bool operator<(const address& other) const { return native_ < other.native_; }  // an order for map keys

private:
    CCmInetAddr native_;
};

}  // namespace talvo
