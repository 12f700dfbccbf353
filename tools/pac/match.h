// Shell expressions.
#pragma once

#include <string_view>

namespace pac {

// true: the pattern needs nothing but MatchShell.
bool IsPlainShell(std::string_view aPattern);

// "*" stands for any text and "?" for one character; every other character stands for itself.
bool MatchShell(std::string_view aText, std::string_view aPattern);

}  // namespace pac
