// The output of `talvo bench`.
#pragma once

#include <string>

#include "tools/arguments.h"
#include "tools/bench_load.h"
#include "tools/console.h"

namespace tool {

// aTarget: for people.
void ReportBench(const Arguments& aArguments, const std::string& aTarget, const BenchLoad::Results& aResults,
                 Console& aConsole);

// Writes the latency over the percentiles as a drawing. Returns "" or an error text.
std::string PlotBench(const std::string& aPath, const std::string& aTitle, const Histogram& aLatency);

}  // namespace tool
