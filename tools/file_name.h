// The file names that a peer may use.
#pragma once

#include <string>
#include <string_view>

namespace tool {

constexpr size_t MAX_FILE_NAME = 255;  // bytes; the limit of Linux file systems

// Checks that a name stays in its directory, whatever path it is joined to: 1 to 255 bytes, no '/', no control character,
// neither "." nor "..", and not the form of the receiver's own temporary files. Returns "" or an error text.
std::string CheckFileName(std::string_view aName);

// The part of a path behind the last '/'.
std::string_view GetBaseName(std::string_view aPath);

// A new temporary name: ".talvo-", 16 hexadecimal digits, ".part".
std::string MakeTemporaryName();

// The temporary name of a file that a later session may continue: of the same form, and the same for the same aName.
std::string MakePartName(std::string_view aName);

// The name of the mark in a folder that is not finished: of the same form, and that of no file's part.
std::string MakeMarkName();

// TRUE: it has exactly that form.
bool IsTemporaryName(std::string_view aName);

}  // namespace tool
