// A row of small bars for a terminal.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace tool {

// The values in at most aWidth bars, each the mean of as many values, from the lowest to the highest of them. "": there are
// no values, or the environment's language has no UTF-8.
std::string MakeSparkline(const std::vector<DWORD>& aValues, size_t aWidth);

}  // namespace tool
