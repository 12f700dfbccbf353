// The library's own type names. Each has the same width on every machine, unlike `long`.
#pragma once

#include <cstdint>
#include <string>

using BYTE = uint8_t;
using WORD = uint16_t;
using DWORD = uint32_t;
using BOOL = int32_t;

// Constants, so that no macro leaves this header; the macros of other headers, if they come first, mean the same.
#ifndef TRUE
constexpr BOOL TRUE = 1;
#endif
#ifndef FALSE
constexpr BOOL FALSE = 0;
#endif

// A socket or another descriptor that a reactor can watch.
using HANDLE = int;
constexpr HANDLE CM_INVALID_HANDLE = -1;

// The library's string: bytes without a fixed encoding.
using CCmString = std::string;
