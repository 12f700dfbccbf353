// The options of TLS on the command lines of the subcommands.
#pragma once

#include <string>

#include "tools/arguments.h"

namespace CLI {
class App;
}

namespace tool {

// Clients: --cacert, --cert and --key; --insecure, behind --cacert; --servername; all of them below --tls.
void DeclareTrust(CLI::App& aApp, Arguments& a);
void DeclareInsecure(CLI::App& aApp, Arguments& a);
void DeclareServerName(CLI::App& aApp, Arguments& a);
void DeclareTlsClient(CLI::App& aApp, Arguments& a);

// Makes the context. Returns "" or an error text. The address has been parsed.
std::string CheckTlsClient(Arguments& a);

// Servers: --cert, --key and --cacert; the same below --tls.
void DeclareClientTrust(CLI::App& aApp, Arguments& a);
void DeclareTlsServer(CLI::App& aApp, Arguments& a);

}  // namespace tool
