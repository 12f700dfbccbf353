// The selection of the program's configuration file.
#pragma once

#include <string>

namespace tool {

// Loads aFile. If it is "", loads the user's talvo/talvo.cfg under $XDG_CONFIG_HOME, else under ~/.config; that one may be
// missing. Call it before the library first reads a key, which would load a file of the current directory. Returns "" or an
// error text.
std::string LoadConfiguration(const std::string& aFile);

}  // namespace tool
