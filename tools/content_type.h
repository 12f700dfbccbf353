// What kind of content a file is taken for.
#pragma once

#include <string_view>

namespace tool {

// The media type for a file's name, by what stands behind its last dot; "application/octet-stream" for what is not known.
const char* GetContentType(std::string_view aName);

}  // namespace tool
