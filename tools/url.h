// URLs as given on the command line.
#pragma once

#include <string>

namespace tool {

// Returns an error text for a URL that the library would refuse or, worse, misunderstand; otherwise "".
std::string CheckUrl(const std::string& aUrl);

}  // namespace tool
