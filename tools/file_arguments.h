// The arguments of `talvo recv` and `talvo send`. The checks return "" or an error text.
#pragma once

#include <string>

#include "tools/arguments.h"

namespace CLI {
class App;
}

namespace tool {

void DeclareRecv(CLI::App& aApp, Arguments& a);
std::string CheckRecv(Arguments& a);

void DeclareSend(CLI::App& aApp, Arguments& a);
std::string CheckSend(Arguments& a);

}  // namespace tool
