// Received bytes.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "talvo/base/message_block.h"

namespace talvo {
inline namespace callbacks {

// One message or datagram, or bytes of a stream as they arrived. Valid during the call of on_receive only.
class received {
public:
    explicit received(const CCmMessageBlock& chain) noexcept : chain_(chain) {}
    received(const received&) = delete;
    received& operator=(const received&) = delete;

    std::size_t size() const noexcept { return chain_.GetChainedLength(); }
    bool empty() const noexcept { return size() == 0; }

    // The bytes in one piece; several pieces are joined first, which copies them. Throws std::bad_alloc.
    std::string_view view() const {
        if (!chain_.GetNext())
            return {chain_.GetTopLevelReadPtr(), chain_.GetTopLevelLength()};
        if (joined_.empty())
            joined_ = str();
        return joined_;
    }
    operator std::string_view() const { return view(); }
    std::span<const std::byte> bytes() const { return std::as_bytes(std::span(view())); }
    std::string str() const { return chain_.FlattenChained(); }  // a copy

    const CCmMessageBlock& block() const noexcept { return chain_; }  // as the library holds it

private:
    const CCmMessageBlock& chain_;
    mutable std::string joined_;
};

}  // namespace callbacks
}  // namespace talvo
