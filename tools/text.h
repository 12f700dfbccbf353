// Texts for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// aText with every control character replaced by '?', so that what a peer sent can neither end a line nor steer a terminal.
std::string Printable(std::string_view aText);

// "0 bytes", "999 bytes", "1.5 kB", "20.0 MB": powers of 1,000, as disks and networks are measured.
std::string FormatBytes(uint64_t aBytes);

// "0:05", "12:30", "1:02:03".
std::string FormatDuration(uint64_t aSeconds);

// What the system says about an errno value.
std::string SystemError(int aErrno);

}  // namespace tool
