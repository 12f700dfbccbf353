// The output of a benchmark program for the driver: flat JSON objects, one a line.
#pragma once

#include <string>

#include "benchmarks/support/histogram.h"

namespace bench {

class CReport {
public:
    void Add(const std::string& aName, double aValue);
    void Print() const;

private:
    std::string m_strFields;
};

// A line {"name":aName,"ns":aNs}: nanoseconds of one operation.
void PrintCost(const std::string& aName, double aNs);
// The same for an operation that was timed each time: "ns" and "p99_ns" are the times that half and 99 of 100 do not exceed.
void PrintCost(const std::string& aName, const CHistogram& aTimes);

}  // namespace bench
