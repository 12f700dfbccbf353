#include "talvo/proxy/script/pac_frame.h"

#include <algorithm>
#include <utility>

#include "talvo/base/ascii.h"
#include "talvo/proxy/script/pac_utf8.h"

namespace talvo {

namespace {

constexpr size_t LENGTH_SIZE = 4;
constexpr size_t LONGEST_TEXT = 0xFFFF;

// U+0080 to U+009F, of two bytes, are control characters too.
BOOL IsControl(std::string_view aCharacter) {
    return aCharacter.size() == 1 ? is_control(aCharacter[0]) : aCharacter >= "\xC2\x80" && aCharacter < "\xC2\xA0";
}

}  // namespace

CPacFrameWriter::CPacFrameWriter(EPacFrame aKind) : m_strBytes(LENGTH_SIZE, '\0') { m_strBytes += static_cast<char>(aKind); }

void CPacFrameWriter::AddNumber(uint64_t aNumber, size_t aBytes) {
    while (aBytes-- > 0)
        m_strBytes += static_cast<char>(aNumber >> 8 * aBytes & 0xFF);
}

void CPacFrameWriter::AddText(std::string_view aText) {
    aText = aText.substr(0, LONGEST_TEXT);
    AddNumber(aText.size(), 2);
    m_strBytes += aText;
}

CCmString CPacFrameWriter::Finish() {
    const size_t stLength = m_strBytes.size() - LENGTH_SIZE;
    if (stLength > MOST_PAC_FRAME)
        return "";
    for (size_t i = 0; i < LENGTH_SIZE; ++i)
        m_strBytes[i] = static_cast<char>(stLength >> 8 * (LENGTH_SIZE - 1 - i) & 0xFF);
    return std::move(m_strBytes);
}

CPacFrameReader::EStep CPacFrameReader::Take(EPacFrame& aKind, std::string_view& aPayload) {
    m_strBytes.erase(0, std::exchange(m_stTaken, 0));
    std::string_view strRest = m_strBytes;
    uint64_t ullLength = 0;
    if (!TakePacNumber(strRest, LENGTH_SIZE, ullLength))
        return MORE;
    if (ullLength == 0 || ullLength > MOST_PAC_FRAME)
        return BROKEN;
    if (strRest.size() < ullLength)
        return MORE;
    aKind = static_cast<EPacFrame>(strRest[0]);
    aPayload = strRest.substr(1, static_cast<size_t>(ullLength) - 1);
    m_stTaken = LENGTH_SIZE + static_cast<size_t>(ullLength);
    return FRAME;
}

BOOL TakePacNumber(std::string_view& aPayload, size_t aBytes, uint64_t& aNumber) {
    if (aPayload.size() < aBytes)
        return FALSE;
    aNumber = 0;
    for (const char c : aPayload.substr(0, aBytes))
        aNumber = aNumber << 8 | static_cast<BYTE>(c);
    aPayload.remove_prefix(aBytes);
    return TRUE;
}

CCmString CleanPacText(std::string_view aText, size_t aMost) {
    CCmString strClean;
    while (!aText.empty()) {
        const size_t stLength = GetUtf8Length(aText);
        const std::string_view strNext =
            stLength == 0 || IsControl(aText.substr(0, stLength)) ? std::string_view("?") : aText.substr(0, stLength);
        if (strClean.size() + strNext.size() > aMost)
            break;
        strClean += strNext;
        aText.remove_prefix(std::max<size_t>(stLength, 1));
    }
    return strClean;
}

}  // namespace talvo
