// The options of proxies on the command lines of the subcommands.
#pragma once

#include <string>

#include "tools/arguments.h"

namespace CLI {
class App;
}

namespace tool {

// --proxy, and below it --proxy-user and --allow-ntlm.
void DeclareProxy(CLI::App& aApp, Arguments& a);

// Reads the route. Returns "" or an error text. The address has been parsed.
std::string CheckProxy(Arguments& a);

// The arguments of `talvo proxy`. CheckProxyLook returns "" or an error text.
void DeclareProxyLook(CLI::App& aApp, Arguments& a);
std::string CheckProxyLook(Arguments& a);

}  // namespace tool
