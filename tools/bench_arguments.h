// The arguments of `talvo bench`. CheckBench returns "" or an error text.
#pragma once

#include <string>

#include "tools/arguments.h"

namespace CLI {
class App;
}

namespace tool {

void DeclareBench(CLI::App& aApp, Arguments& a);
std::string CheckBench(Arguments& a);

}  // namespace tool
