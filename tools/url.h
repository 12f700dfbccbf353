// URLs as given on the command line.
#pragma once

#include <string>

namespace tool {

// Returns an error text for a URL that the library would refuse or, worse, misunderstand; otherwise "".
std::string CheckUrl(const std::string& aUrl);

// TRUE: browsers can send it as the origin of a page, in lower case, without a path and a default port; or it is "*".
bool IsOrigin(const std::string& aText);

}  // namespace tool
