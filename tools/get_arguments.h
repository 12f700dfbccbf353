// The options of `talvo get`.
#pragma once

#include "tools/arguments.h"

namespace CLI {
class App;
}

namespace tool {

void DeclareGet(CLI::App& aApp, Arguments& aArguments);

// Returns "" or an error text.
std::string CheckGet(Arguments& aArguments);

}  // namespace tool
