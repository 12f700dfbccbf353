#include "talvo/base/trace_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr size_t NUMBER_LENGTH = 32;  // enough for any number below, in any base used

template <class... Arguments>
std::string_view Format(char (&aBuffer)[NUMBER_LENGTH], Arguments... aArguments) {
    const auto result = std::to_chars(aBuffer, aBuffer + NUMBER_LENGTH, aArguments...);
    return {aBuffer, static_cast<size_t>(result.ptr - aBuffer)};
}

}  // namespace

CCmTraceText& CCmTraceText::operator<<(std::string_view aText) {
    const size_t nCopy = std::min(aText.size(), sizeof(m_szText) - m_dwLength);
    if (nCopy > 0)
        std::memcpy(m_szText + m_dwLength, aText.data(), nCopy);
    m_dwLength += static_cast<DWORD>(nCopy);
    return *this;
}

CCmTraceText& CCmTraceText::operator<<(const char* aText) { return *this << std::string_view(aText ? aText : "(null)"); }

CCmTraceText& CCmTraceText::operator<<(const void* aAddress) {
    char szNumber[NUMBER_LENGTH];
    return *this << std::string_view("0x") << Format(szNumber, reinterpret_cast<uintptr_t>(aAddress), 16);
}

CCmTraceText& CCmTraceText::operator<<(double aNumber) {
    char szNumber[NUMBER_LENGTH];
    return *this << Format(szNumber, aNumber);
}

CCmTraceText& CCmTraceText::AppendSigned(int64_t aNumber) {
    char szNumber[NUMBER_LENGTH];
    return *this << Format(szNumber, aNumber);
}

CCmTraceText& CCmTraceText::AppendUnsigned(uint64_t aNumber) {
    char szNumber[NUMBER_LENGTH];
    return *this << Format(szNumber, aNumber);
}
