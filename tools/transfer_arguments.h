// The options --limit-rate and --retry on the command lines of the subcommands that transfer files.
#pragma once

#include "tools/transfer_options.h"

namespace CLI {
class App;
}

namespace tool {

void DeclareTransfer(CLI::App& aApp, TransferOptions& aOptions);

// Returns "" or an error text.
std::string CheckTransfer(TransferOptions& aOptions);

}  // namespace tool
