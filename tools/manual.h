// `talvo help`, and the manual pages made from the same texts.
#pragma once

#include <string>

#include "tools/arguments.h"
#include "tools/option_table.h"

namespace tool {

void DeclareHelp(CLI::App& aApp, Arguments& a);

// aCommand is none of the program's commands.
std::string DescribeUnknown(const std::string& aCommand);

// Prints to stdout, in the format of the arguments. Returns "" or an error text.
std::string PrintHelp(const CLI::App& aApp, const Arguments& a);

// A page for mdoc(7): of a command, or of the program if aCommand is "". The date is that of SOURCE_DATE_EPOCH, or today.
std::string MakeManual(const OptionTable& aTable, const std::string& aCommand);

}  // namespace tool
