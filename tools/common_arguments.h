// The arguments that several subcommands share.
#pragma once

#include <string>

#include "tools/arguments.h"
#include "tools/options.h"

namespace tool {

// --json, --quiet, --verbose and --config.
void DeclareCommon(CLI::App& aApp, Arguments& a);
void DeclareType(CLI::App& aApp, Arguments& a);
// --type and --udp, behind --tls.
void DeclareUdp(CLI::App& aApp, Arguments& a);
// --port and --host. aDefault: the address without --host, for the help.
void DeclareListening(CLI::App& aApp, Arguments& a, const char* aDefault = "all addresses of the machine");
void DeclareEndpoint(CLI::App& aApp, Arguments& a, const char* aHelp);
void DeclareBind(CLI::App& aApp, Arguments& a);
void DeclareSize(CLI::App& aApp, Arguments& a);
// --secret and --secret-file. aHelp: of the first.
void DeclareSecret(CLI::App& aApp, Arguments& a, const char* aHelp);

// The checks return "" or an error text.

// Loads the configuration, and sets the verbosity.
std::string CheckCommon(Arguments& a);
std::string CheckListening(Arguments& a);
// The endpoint and TLS of a client. aEndpoint: as given.
std::string CheckPeer(Arguments& a, const std::string& aEndpoint);
std::string CheckBind(Arguments& a);
std::string CheckSecret(Arguments& a);
// Sets the default, 64 bytes. Datagrams have a limit.
std::string CheckSize(Arguments& a);

}  // namespace tool
