// Conversion to and from network byte order.
#pragma once

#include <bit>

#include "talvo/base/types.h"

// Converts between this machine's order and the network's, which is big-endian. Both directions are the same operation.
class CCmHostNetworkConvertorNormal {
public:
    // The value in the other order. A byte has one order only.
    static CmByte Convert(CmByte aValue) { return aValue; }
    static CmWord Convert(CmWord aValue) { return IS_BIG ? aValue : __builtin_bswap16(aValue); }
    static CmDword Convert(CmDword aValue) { return IS_BIG ? aValue : __builtin_bswap32(aValue); }

private:
    static constexpr bool IS_BIG = std::endian::native == std::endian::big;
};
