// Byte order on the wire.
#pragma once

#include <bit>

#include "talvo/base/types.h"

// Between this machine's order and the network's, which is big-endian. The same operation both ways.
class CCmHostNetworkConvertorNormal {
public:
    static BYTE Convert(BYTE aValue) { return aValue; }
    static WORD Convert(WORD aValue) { return IS_BIG ? aValue : __builtin_bswap16(aValue); }
    static DWORD Convert(DWORD aValue) { return IS_BIG ? aValue : __builtin_bswap32(aValue); }

private:
    static constexpr bool IS_BIG = std::endian::native == std::endian::big;
};
