// URLs as they are typed.
#pragma once

#include <string>

namespace tool {

// What the library would refuse or, worse, take for another URL than is meant; "" for none of it.
std::string CheckUrl(const std::string& aUrl);

}  // namespace tool
