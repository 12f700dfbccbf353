#include "tools/byte_range.h"

#include <algorithm>
#include <charconv>

namespace tool {

namespace {

// Reads decimal digits only. A number that is too large becomes the largest number.
bool ParseNumber(std::string_view aText, uint64_t& aNumber) {
    const auto [pEnd, error] = std::from_chars(aText.data(), aText.data() + aText.size(), aNumber);
    if (error == std::errc::result_out_of_range)
        aNumber = UINT64_MAX;
    return !aText.empty() && pEnd == aText.data() + aText.size() && error != std::errc::invalid_argument;
}

ByteRange MakePart(uint64_t aFirst, uint64_t aLast, uint64_t aSize) {
    if (aFirst >= aSize)
        return {ByteRange::UNSATISFIABLE, 0, 0};
    return {ByteRange::PART, aFirst, std::min(aLast, aSize - 1) - aFirst + 1};
}

}  // namespace

ByteRange ParseByteRange(std::string_view aValue, uint64_t aSize) {
    const ByteRange whole{ByteRange::WHOLE, 0, aSize};
    constexpr std::string_view UNIT = "bytes=";
    const size_t stDash = aValue.find('-');
    if (!aValue.starts_with(UNIT) || stDash == std::string_view::npos)
        return whole;
    const std::string_view first = aValue.substr(UNIT.size(), stDash - UNIT.size());
    const std::string_view last = aValue.substr(stDash + 1);
    uint64_t ullFirst = 0;
    uint64_t ullLast = UINT64_MAX;
    if (first.empty()) {  // a number of bytes at the end
        if (!ParseNumber(last, ullLast))
            return whole;
        return ullLast == 0 ? MakePart(aSize, 0, aSize) : MakePart(aSize - std::min(ullLast, aSize), UINT64_MAX, aSize);
    }
    if (!ParseNumber(first, ullFirst) || (!last.empty() && !ParseNumber(last, ullLast)) || ullLast < ullFirst)
        return whole;
    return MakePart(ullFirst, ullLast, aSize);
}

bool ParseContentRange(std::string_view aValue, ContentRange& aRange) {
    constexpr std::string_view UNIT = "bytes ";
    const size_t stDash = aValue.find('-');
    const size_t stSlash = aValue.find('/');
    if (!aValue.starts_with(UNIT) || stDash == std::string_view::npos || stSlash == std::string_view::npos || stSlash < stDash)
        return false;
    const std::string_view size = aValue.substr(stSlash + 1);
    aRange = ContentRange();
    return ParseNumber(aValue.substr(UNIT.size(), stDash - UNIT.size()), aRange.m_ullFirst) &&
           ParseNumber(aValue.substr(stDash + 1, stSlash - stDash - 1), aRange.m_ullLast) &&
           (size == "*" || ParseNumber(size, aRange.m_ullSize)) && aRange.m_ullFirst <= aRange.m_ullLast &&
           aRange.m_ullLast < aRange.m_ullSize;
}

}  // namespace tool
