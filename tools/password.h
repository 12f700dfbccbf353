// Passwords, which are never arguments: other users can see those.
#pragma once

#include <string>

namespace tool {

// aPassword (out): the value of the environment variable aVariable, which is removed, or else a line of the terminal, without
// echo, behind aPrompt. Returns "" or an error text. Ctrl-C ends the program. Call it before the loop runs.
std::string ReadPassword(const char* aVariable, const std::string& aPrompt, std::string& aPassword);

// aPassword (out): the first line of the file at aPath. Returns "" or an error text.
std::string ReadPasswordFile(const std::string& aPath, std::string& aPassword);

}  // namespace tool
