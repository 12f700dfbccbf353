#include "tools/pac/wire.h"

#include <unistd.h>

#include <cerrno>

namespace pac {

namespace {

constexpr int SOCKET = 0;
constexpr size_t MAX_FRAME = (1 << 20) + 64;

void ReadAll(char* aInto, size_t aSize) {
    while (aSize > 0) {
        const ssize_t lRead = read(SOCKET, aInto, aSize);
        if (lRead == -1 && errno == EINTR)
            continue;
        if (lRead <= 0)
            _exit(0);
        aInto += lRead;
        aSize -= static_cast<size_t>(lRead);
    }
}

void WriteAll(std::string_view aBytes) {
    while (!aBytes.empty()) {
        const ssize_t lWritten = write(SOCKET, aBytes.data(), aBytes.size());
        if (lWritten == -1 && errno == EINTR)
            continue;
        if (lWritten <= 0)
            _exit(0);
        aBytes.remove_prefix(static_cast<size_t>(lWritten));
    }
}

}  // namespace

uint64_t Fields::GetNumber(size_t aBytes) {
    uint64_t ullNumber = 0;
    for (const char c : Take_i(aBytes))
        ullNumber = ullNumber << 8 | static_cast<unsigned char>(c);
    return ullNumber;
}

std::string Fields::GetText() {
    const auto stLength = static_cast<size_t>(GetNumber(2));
    return std::string(Take_i(stLength));
}

std::string_view Fields::Take_i(size_t aBytes) {
    m_bCut = m_bCut || aBytes > m_strRest.size();
    if (m_bCut)
        return {};
    const std::string_view strTaken = m_strRest.substr(0, aBytes);
    m_strRest.remove_prefix(aBytes);
    return strTaken;
}

Frame ReadFrame() {
    char head[4];
    ReadAll(head, sizeof head);
    const auto stLength = static_cast<size_t>(Fields({head, sizeof head}).GetNumber(sizeof head));
    if (stLength == 0 || stLength > MAX_FRAME)
        _exit(2);
    Frame frame;
    ReadAll(&frame.m_cLetter, 1);
    frame.m_strPayload.resize(stLength - 1);
    ReadAll(frame.m_strPayload.data(), frame.m_strPayload.size());
    return frame;
}

void WriteFrame(char aLetter, std::string_view aPayload) {
    const auto stLength = aPayload.size() + 1;
    std::string strFrame;
    for (int nShift = 24; nShift >= 0; nShift -= 8)
        strFrame += static_cast<char>(stLength >> nShift & 0xFF);
    strFrame += aLetter;
    strFrame += aPayload;
    WriteAll(strFrame);
}

}  // namespace pac
