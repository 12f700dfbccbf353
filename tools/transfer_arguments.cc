#include "tools/transfer_arguments.h"

#include <CLI/CLI.hpp>

#include "tools/rate_limit.h"

namespace tool {

void DeclareTransfer(CLI::App& aApp, TransferOptions& aOptions) {
    aApp.add_option("--limit-rate", aOptions.m_strRate, "Bytes a second at most, such as 500k or 1.5M (powers of 1,000)")
        ->option_text("RATE");
    aApp.add_option(
            "--retry", aOptions.m_dwRetries,
            "Further attempts after a failure that may be temporary, with pauses of 1, 2, 4 and so on to 60 seconds (0)")
        ->check(CLI::Range(0, 1000000))
        ->option_text("N");
}

std::string CheckTransfer(TransferOptions& aOptions) {
    if (aOptions.m_strRate.empty() || ParseRate(aOptions.m_strRate, aOptions.m_ullRate))
        return "";
    return "--limit-rate: '" + aOptions.m_strRate + "' is not a rate such as 500k";
}

}  // namespace tool
