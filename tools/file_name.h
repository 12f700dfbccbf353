// Which names a peer may give to a file.
#pragma once

#include <string>
#include <string_view>

namespace tool {

constexpr size_t MAX_FILE_NAME = 255;  // bytes; what Linux file systems take

// A name that stays in its directory whatever it is joined to: 1 to 255 bytes, no '/', no control character, neither "." nor
// "..", and not of the form of the receiver's own temporary files. What is wrong with it, or "".
std::string CheckFileName(std::string_view aName);

// What stands behind the last '/' of a path.
std::string_view GetBaseName(std::string_view aPath);

// A fresh temporary name, ".talvo-" + 16 hexadecimal digits + ".part".
std::string MakeTemporaryName();

// Exactly of that form.
bool IsTemporaryName(std::string_view aName);

}  // namespace tool
