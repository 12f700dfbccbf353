#include "talvo/base/parameter_list.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"

namespace {

constexpr std::string_view SPECIAL = ";=\\";
constexpr size_t MAX_TEXT =
    2 * CCmParameterList::MAX_BYTES + 2 * CCmParameterList::MAX_PAIRS;  // the longest text of a list within the limits

void AppendEscaped(CCmString& aText, std::string_view aPart) {
    for (const char c : aPart) {
        if (SPECIAL.find(c) != std::string_view::npos)
            aText += '\\';
        aText += c;
    }
}

// Moves the front of aText, up to the first of aEnds without a backslash, to aPart (out) and removes the backslashes. aEnd
// (out): the delimiter, which is also removed, or 0 at the end of the text. False: a wrong backslash.
bool TakePart(std::string_view& aText, std::string_view aEnds, CCmString& aPart, char& aEnd) {
    aEnd = 0;
    while (!aText.empty()) {
        char c = aText.front();
        aText.remove_prefix(1);
        if (aEnds.find(c) != std::string_view::npos) {
            aEnd = c;
            return true;
        }
        if (c == '\\') {
            if (aText.empty() || SPECIAL.find(aText.front()) == std::string_view::npos)
                return false;
            c = aText.front();
            aText.remove_prefix(1);
        }
        aPart += c;
    }
    return true;
}

}  // namespace

CmResult CCmParameterList::Set(std::string_view aName, std::string_view aValue) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Set_i(aName, aValue); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmParameterList::Set_i(std::string_view aName, std::string_view aValue) {
    CPair pair(aName, aValue);  // copied first: the arguments may be parts of this list
    const auto isNamed = [&pair](const CPair& aPair) { return aPair.first == pair.first; };
    const auto itFirst = std::find_if(m_Pairs.begin(), m_Pairs.end(), isNamed);
    if (itFirst == m_Pairs.end())
        return Append(pair.first, pair.second);
    size_t nOld = 0;
    for (const CPair& old : m_Pairs)
        nOld += isNamed(old) ? old.first.size() + old.second.size() : 0;
    const size_t nKept = m_nBytes - nOld;
    if (pair.second.size() > MAX_BYTES || pair.first.size() + pair.second.size() > MAX_BYTES - nKept)
        return CM_ERROR_NOT_AVAILABLE;
    m_Pairs.erase(std::remove_if(itFirst + 1, m_Pairs.end(), isNamed), m_Pairs.end());
    m_nBytes = nKept + pair.first.size() + pair.second.size();
    *itFirst = std::move(pair);
    return CM_OK;
}

CmResult CCmParameterList::Append(std::string_view aName, std::string_view aValue) {
    const size_t nRoom = MAX_BYTES - m_nBytes;
    if (m_Pairs.size() == MAX_PAIRS || aName.size() > nRoom || aValue.size() > nRoom - aName.size())
        return CM_ERROR_NOT_AVAILABLE;
    const size_t nBytes = aName.size() + aValue.size();
    if (!talvo::WithMemory([&] { m_Pairs.emplace_back(CCmString(aName), CCmString(aValue)); }))
        return CM_ERROR_OUT_OF_MEMORY;
    m_nBytes += nBytes;
    return CM_OK;
}

CmResult CCmParameterList::Get(std::string_view aName, CCmString& aValue) const {
    for (const CPair& pair : m_Pairs) {
        if (pair.first == aName) {
            return talvo::WithMemory([&] { aValue = pair.second; }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
        }
    }
    return CM_ERROR_NOT_FOUND;
}

CmResult CCmParameterList::Remove(std::string_view aName) {
    CCmString strName;  // the argument may be a part of this list
    if (!talvo::WithMemory([&] { strName = aName; }))
        return CM_ERROR_OUT_OF_MEMORY;
    const size_t nRemoved = std::erase_if(m_Pairs, [&](const CPair& aPair) {
        if (aPair.first != strName)
            return false;
        m_nBytes -= aPair.first.size() + aPair.second.size();
        return true;
    });
    return nRemoved > 0 ? CM_OK : CM_ERROR_NOT_FOUND;
}

void CCmParameterList::Clear() {
    m_Pairs.clear();
    m_nBytes = 0;
}

CCmString CCmParameterList::Print() const {
    CCmString strText;
    for (const CPair& pair : m_Pairs) {
        if (!strText.empty())
            strText += ';';
        AppendEscaped(strText, pair.first);
        strText += '=';
        AppendEscaped(strText, pair.second);
    }
    return strText;
}

CmResult CCmParameterList::Parse(std::string_view aText) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Parse_i(aText); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmParameterList::Parse_i(std::string_view aText) {
    if (aText.size() > MAX_TEXT)
        return CM_ERROR_NOT_AVAILABLE;
    CCmParameterList parsed;
    BOOL bMore = !aText.empty();
    while (bMore) {
        CCmString strName;
        CCmString strValue;
        char cEnd;
        if (!TakePart(aText, "=;", strName, cEnd) || cEnd != '=' || !TakePart(aText, ";", strValue, cEnd))
            return CM_ERROR_INVALID_ARG;
        const CmResult rv = parsed.Append(strName, strValue);
        if (rv != CM_OK)
            return rv;
        bMore = cEnd == ';';
    }
    *this = std::move(parsed);
    return CM_OK;
}
