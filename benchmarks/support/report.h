// What a benchmark program prints for the driver: one flat JSON object on one line.
#pragma once

#include <string>

namespace bench {

class CReport {
public:
    void Add(const std::string& aName, double aValue);
    void Print() const;

private:
    std::string m_strFields;
};

}  // namespace bench
