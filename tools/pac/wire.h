// The frames between the helper and its parent, over descriptor 0. docs/pac-helper.md defines them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pac {

struct Frame {
    char m_cLetter = 0;
    std::string m_strPayload;
};

// Reads the fields of a payload, in their order. A field that is cut short is empty, and so is every later one.
class Fields {
public:
    explicit Fields(std::string_view aPayload) : m_strRest(aPayload) {}

    uint64_t GetNumber(size_t aBytes);  // big-endian, at most 8 bytes
    std::string GetText();              // behind its length of 2 bytes
    std::string GetRest() { return std::string(Take_i(m_strRest.size())); }

    bool IsComplete() const { return !m_bCut && m_strRest.empty(); }

private:
    std::string_view Take_i(size_t aBytes);

    std::string_view m_strRest;
    bool m_bCut = false;
};

// Waits for the next frame. At the parent's end, and after bytes that are no frame, the process ends.
Frame ReadFrame();

// Waits for room. If the parent has gone, the process ends.
void WriteFrame(char aLetter, std::string_view aPayload);

}  // namespace pac
