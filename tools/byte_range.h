// Which part of a file a request asks for, and which one an answer brings.
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

// What the value of a header "Range" means for a file of aSize bytes: "bytes=0-99", "bytes=100-", "bytes=-100". Several ranges
// at once, other units and nonsense count as none, which RFC 9110 leaves to the server: the whole file.
ByteRange ParseByteRange(std::string_view aValue, uint64_t aSize);

// The value of a header "Content-Range": "bytes 5-9/10".
struct ContentRange {
    static constexpr uint64_t NO_SIZE = UINT64_MAX;  // the server does not know: "bytes 5-9/*"

    uint64_t m_ullFirst = 0;
    uint64_t m_ullLast = 0;
    uint64_t m_ullSize = NO_SIZE;  // of all there is
};

// false: it is none, or one that contradicts itself.
bool ParseContentRange(std::string_view aValue, ContentRange& aRange);

}  // namespace tool
