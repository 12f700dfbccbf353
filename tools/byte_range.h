// The requested part of a file, and the part that an answer contains.
#pragma once

#include <cstdint>
#include <string_view>

namespace tool {

struct ByteRange {
    enum EKind { WHOLE, PART, UNSATISFIABLE };

    EKind m_Kind = WHOLE;
    uint64_t m_ullFirst = 0;
    uint64_t m_ullLength = 0;
};

// Parses the value of a header "Range" for a file of aSize bytes: "bytes=0-99", "bytes=100-", "bytes=-100". Several ranges,
// other units and malformed values count as no range and give the whole file; RFC 9110 allows that.
ByteRange ParseByteRange(std::string_view aValue, uint64_t aSize);

// The value of a header "Content-Range": "bytes 5-9/10".
struct ContentRange {
    static constexpr uint64_t NO_SIZE = UINT64_MAX;  // unknown to the server: "bytes 5-9/*"

    uint64_t m_ullFirst = 0;
    uint64_t m_ullLast = 0;
    uint64_t m_ullSize = NO_SIZE;  // of the whole file
};

// aRange (out). false: the value is malformed or contradicts itself.
bool ParseContentRange(std::string_view aValue, ContentRange& aRange);

}  // namespace tool
