// Texts for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// aText with '?' for every control character, for every character that changes the direction of the text, and for every byte
// that is no UTF-8, so that text from a peer can neither end a line nor control a terminal.
std::string Printable(std::string_view aText);

// The same for JSON, with an escape of JSON instead of each '?'.
std::string PrintableJson(std::string_view aJson);

// TRUE: aText has a control character.
bool HasControl(std::string_view aText);

// The first aColumns characters of UTF-8 text, of which each counts as one column.
std::string Truncated(const std::string& aText, size_t aColumns);

// "0 bytes", "999 bytes", "1.5 kB", "20.0 MB": powers of 1,000, as for disks and networks.
std::string FormatBytes(uint64_t aBytes);

// "0:05", "12:30", "1:02:03".
std::string FormatDuration(uint64_t aSeconds);

// The system's text for an errno value.
std::string SystemError(int aErrno);

}  // namespace tool
