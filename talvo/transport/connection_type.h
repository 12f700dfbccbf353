// The flags of a connection's type that every room reads.
#pragma once

#include "talvo/base/types.h"

namespace talvo {

inline constexpr DWORD TYPE_NO_PARTIAL_DATA = 0x00100000;
inline constexpr DWORD TYPE_PACKAGE = 0x10000000;

}  // namespace talvo
