// Which configuration file the program obeys.
#pragma once

#include <string>

namespace tool {

// Loads aFile, or when that is "", the user's talvo/talvo.cfg, which may be missing: under $XDG_CONFIG_HOME, else ~/.config.
// Before the library's first look at a key, which would read a file of the current directory. What is wrong, or "".
std::string LoadConfiguration(const std::string& aFile);

}  // namespace tool
