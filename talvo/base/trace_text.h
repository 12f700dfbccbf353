// Builds one trace line without allocating.
#pragma once

#include <string_view>
#include <type_traits>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Numbers are decimal, addresses hexadecimal with 0x, texts unchanged; a null text becomes "(null)". Text beyond the buffer is
// cut off.
class TALVO_API CCmTraceText {
public:
    // Append a text, an address or a number.
    CCmTraceText& operator<<(std::string_view aText);
    CCmTraceText& operator<<(const char* aText);
    CCmTraceText& operator<<(const CCmString& aText) { return *this << std::string_view(aText); }
    CCmTraceText& operator<<(const void* aAddress);
    CCmTraceText& operator<<(double aNumber);

    // Appends a number.
    template <class Number, std::enable_if_t<std::is_integral_v<Number> || std::is_enum_v<Number>, int> = 0>
    CCmTraceText& operator<<(Number aNumber) {
        if constexpr (std::is_enum_v<Number>)
            return AppendSigned(static_cast<int64_t>(aNumber));
        else if constexpr (std::is_signed_v<Number>)
            return AppendSigned(aNumber);
        else
            return AppendUnsigned(aNumber);
    }

    // Valid during the life of this object.
    std::string_view GetText() const { return {m_szText, m_dwLength}; }

private:
    CCmTraceText& AppendSigned(int64_t aNumber);
    CCmTraceText& AppendUnsigned(uint64_t aNumber);

    CmDword m_dwLength = 0;
    char m_szText[2044];
};
