// Passwords that the user types.
#pragma once

#include <string>

namespace tool {

// aPassword (out): the value of the environment variable aVariable, which is removed, or else a line of the terminal, without
// echo, behind aPrompt. Returns "" or an error text. Ctrl-C ends the program. Call it before the loop runs.
std::string ReadPassword(const char* aVariable, const std::string& aPrompt, std::string& aPassword);

}  // namespace tool
