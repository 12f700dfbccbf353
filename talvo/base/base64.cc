#include "talvo/base/base64.h"

#include <array>

#include "talvo/base/with_memory.h"

namespace {

constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t MAX_DATA = size_t{1} << 30;
constexpr size_t MAX_TEXT = (MAX_DATA + 2) / 3 * 4;
constexpr BYTE NO_LETTER = 64;

constexpr std::array<BYTE, 256> MakeValues() {
    std::array<BYTE, 256> values{};
    values.fill(NO_LETTER);
    for (size_t n = 0; n < LETTERS.size(); ++n)
        values[static_cast<BYTE>(LETTERS[n])] = static_cast<BYTE>(n);
    return values;
}

constexpr std::array<BYTE, 256> VALUES = MakeValues();

// aBits (out): 6 bits for each letter, the first letter's on top. false: a character is not a letter of the alphabet.
bool DecodeLetters(std::string_view aLetters, DWORD& aBits) {
    aBits = 0;
    for (const char c : aLetters) {
        const BYTE bValue = VALUES[static_cast<BYTE>(c)];
        if (bValue == NO_LETTER)
            return false;
        aBits = aBits << 6 | bValue;
    }
    return true;
}

}  // namespace

CmResult cm_base64_encode(const void* aData, size_t aSize, CCmString& aText) {
    if (aSize > MAX_DATA || (!aData && aSize > 0))
        return CM_ERROR_INVALID_ARG;
    const BYTE* pData = static_cast<const BYTE*>(aData);
    CCmString strText;
    if (!talvo::WithMemory([&] { strText.reserve((aSize + 2) / 3 * 4); }))
        return CM_ERROR_OUT_OF_MEMORY;
    for (size_t n = 0; n < aSize; n += 3) {
        const size_t nBytes = aSize - n < 3 ? aSize - n : 3;
        DWORD dwBits = 0;
        for (size_t i = 0; i < 3; ++i)
            dwBits = dwBits << 8 | (i < nBytes ? pData[n + i] : 0u);
        for (size_t i = 0; i < 4; ++i)
            strText += i <= nBytes ? LETTERS[dwBits >> (18 - 6 * i) & 63] : '=';
    }
    aText.swap(strText);
    return CM_OK;
}

CmResult cm_base64_decode(std::string_view aText, CCmString& aData) {
    if (aText.size() % 4 != 0 || aText.size() > MAX_TEXT)
        return CM_ERROR_INVALID_ARG;
    CCmString strData;
    if (!talvo::WithMemory([&] { strData.reserve(aText.size() / 4 * 3); }))
        return CM_ERROR_OUT_OF_MEMORY;
    for (; !aText.empty(); aText.remove_prefix(4)) {
        size_t nLetters = 4;
        if (aText.size() == 4 && aText[3] == '=')
            nLetters = aText[2] == '=' ? 2 : 3;
        DWORD dwBits;
        if (!DecodeLetters(aText.substr(0, nLetters), dwBits))
            return CM_ERROR_INVALID_ARG;
        // nLetters letters carry nLetters - 1 bytes. The bits below these bytes have to be 0.
        const size_t nUnused = nLetters * 6 - (nLetters - 1) * 8;
        if (nLetters < 4 && (dwBits & ((1u << nUnused) - 1)) != 0)
            return CM_ERROR_INVALID_ARG;
        dwBits >>= nUnused;
        for (size_t i = nLetters - 1; i-- > 0;)
            strData += static_cast<char>(dwBits >> (8 * i) & 255);
    }
    aData.swap(strData);
    return CM_OK;
}
