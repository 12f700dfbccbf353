// What a benchmark program prints for the driver: flat JSON objects, one a line.
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
// The same of an operation whose time was taken each time: what half and 99 of 100 do not exceed, as "ns" and "p99_ns".
void PrintCost(const std::string& aName, const CHistogram& aTimes);

}  // namespace bench
