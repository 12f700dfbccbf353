// The library's own type names. Each has the same width on every machine, and no other library's header changes it.
#pragma once

#if __cplusplus < 202002L
#error "Talvo needs C++20: compile with -std=c++20 or a later standard"
#endif

#include <cstdint>
#include <string>

// Of 8, 16 and 32 bits, and a truth value.
using CmByte = uint8_t;
using CmWord = uint16_t;
using CmDword = uint32_t;
using CmBool = int32_t;
// The two truth values.
constexpr CmBool CM_TRUE = 1;
constexpr CmBool CM_FALSE = 0;

// A socket or another descriptor that a reactor can watch.
using CmHandle = int;
constexpr CmHandle CM_INVALID_HANDLE = -1;  // no descriptor

// The library's string: bytes without a fixed encoding.
using CCmString = std::string;
