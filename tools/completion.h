// Completions of the command line for shells.
#pragma once

#include <string>

#include "tools/option_table.h"

namespace tool {

// aShell: "bash", "zsh" or "fish". A script that completes commands, options, their choices, files and folders.
std::string MakeCompletion(const OptionTable& aTable, const std::string& aShell);

}  // namespace tool
