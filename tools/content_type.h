// The media type of a file.
#pragma once

#include <string_view>

namespace tool {

// Returns the media type for the extension of a file's name, and "application/octet-stream" for an unknown one.
const char* GetContentType(std::string_view aName);

// TRUE: a media type whose content is text, so that compression makes it shorter.
bool IsText(std::string_view aType);

}  // namespace tool
