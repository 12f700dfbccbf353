#include "talvo/http/message/http_header_array.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_text.h"

namespace {

using Atoms = CCmHttpAtomList;
using namespace std::string_view_literals;

// The storage that an array keeps across Clear: enough for usual messages, and little enough for thousands of idle connections.
constexpr size_t MOST_SPARE_ENTRIES = 64;
constexpr size_t MOST_SPARE_VALUE = 2048;

// Of a line without a colon.
size_t find_separator(std::string_view aLine) {
    for (const char c : {' ', '\t', '='}) {
        const size_t stAt = aLine.find(c);
        if (stAt != std::string_view::npos)
            return stAt;
    }
    return std::string_view::npos;
}

// One of 64 bits, by the atom's address.
uint64_t mark_of(const CCmHttpAtom& aAtom) {
    return uint64_t{1} << (reinterpret_cast<uintptr_t>(aAtom.operator const char*()) * 0x9E3779B97F4A7C15u >> 58);
}

BOOL is_merged_by_line(const CCmHttpAtom& aAtom) {
    return aAtom == Atoms::Set_Cookie || aAtom == Atoms::WWW_Authenticate || aAtom == Atoms::Proxy_Authenticate;
}

void append_line(CCmString& aOut, const char* aName, std::string_view aValue) {
    talvo::append_texts(aOut, std::string_view(aName ? aName : ""), ": "sv, aValue, "\r\n"sv);
}

}  // namespace

BOOL CCmHttpHeaderArray::Clear() {
    if (m_Entries.size() > MOST_SPARE_ENTRIES)
        m_Entries.resize(MOST_SPARE_ENTRIES);
    for (CEntry& entry : m_Entries) {
        if (entry.m_strValue.capacity() > MOST_SPARE_VALUE)
            CCmString().swap(entry.m_strValue);
    }
    m_stGuesses = m_bTokens && m_OwnNames.empty() ? std::min(m_stCount, m_Entries.size()) : 0;
    m_bTokens = TRUE;
    m_bHeadersComplete = m_bFirstLineParsed = FALSE;
    m_stCount = 0;
    m_ullMarks = 0;
    m_OwnNames.clear();
    m_dwFaults = 0;
    return TRUE;
}

BOOL CCmHttpHeaderArray::SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, int aMerge) {
    m_bTokens = FALSE;
    m_stGuesses = 0;
    return talvo::WithMemory([&] { Store(aAtom, talvo::trim_spaces(aValue), aMerge); });
}

void CCmHttpHeaderArray::Store(const CCmHttpAtom& aAtom, std::string_view aValue, int aMerge) {
    CEntry* pEntry;
    LookupEntry(aAtom, pEntry);
    if (aValue.empty()) {
        if (pEntry && !aMerge)
            Remove(pEntry);
    } else if (!pEntry) {
        Append(aAtom, aValue);
    } else if (!aMerge || !CanAppendToHeader(aAtom)) {
        pEntry->m_strValue.assign(aValue);
    } else {
        Merge(*pEntry, aValue);
    }
}

// Changes nothing unless there is room for all of it. aValue may be a part of the growing value.
[[gnu::noinline]] void CCmHttpHeaderArray::Merge(CEntry& aEntry, std::string_view aValue) const {
    CCmString& strValue = aEntry.m_strValue;
    const std::string_view strSeparator = is_merged_by_line(aEntry.m_Atom) ? "\n" : ", ";
    const size_t stEnd = strValue.size();
    const size_t stSize = stEnd + strSeparator.size() + aValue.size();
    if (stSize > strValue.capacity()) {
        CCmString strRoom;
        strRoom.reserve(std::max(stSize, 2 * strValue.capacity()));
        strRoom.append(strValue).append(strSeparator).append(aValue);
        strValue.swap(strRoom);
    } else {
        strValue.append(aValue).insert(stEnd, strSeparator);
    }
}

void CCmHttpHeaderArray::Append(const CCmHttpAtom& aAtom, std::string_view aValue) {
    if (m_stCount == m_Entries.size())
        m_Entries.emplace_back();
    CEntry& entry = m_Entries[m_stCount];
    entry.m_Atom = aAtom;
    talvo::replace_text(entry.m_strValue, aValue);
    ++m_stCount;
    m_ullMarks |= mark_of(aAtom);
}

[[gnu::noinline]] void CCmHttpHeaderArray::Remove(const CEntry* aEntry) {
    const auto itFirst = m_Entries.begin() + (aEntry - m_Entries.data());
    std::rotate(itFirst, itFirst + 1, m_Entries.begin() + static_cast<ptrdiff_t>(m_stCount));
    --m_stCount;
}

void CCmHttpHeaderArray::LookupEntry(const CCmHttpAtom& aAtom, CEntry*& aEntry) const {
    aEntry = nullptr;
    if (!(m_ullMarks & mark_of(aAtom)))
        return;
    for (size_t i = 0; i < m_stCount; ++i) {
        if (m_Entries[i].m_Atom == aAtom) {
            aEntry = const_cast<CEntry*>(&m_Entries[i]);
            return;
        }
    }
}

const CCmString* CCmHttpHeaderArray::FindHeader(const CCmHttpAtom& aAtom) const {
    CEntry* pEntry;
    LookupEntry(aAtom, pEntry);
    return pEntry ? &pEntry->m_strValue : nullptr;
}

BOOL CCmHttpHeaderArray::GetHeader(const CCmHttpAtom& aAtom, CCmString& aValue) const {
    const CCmString* pValue = FindHeader(aAtom);
    return pValue && talvo::WithMemory([&] { aValue = *pValue; });
}

const CCmString* CCmHttpHeaderArray::FindConnection_t() const {
    const CCmString* pValue = FindHeader(Atoms::Connection);
    return pValue ? pValue : FindHeader(Atoms::Proxy_Connection);
}

BOOL CCmHttpHeaderArray::CanAppendToHeader(const CCmHttpAtom& aAtom) const {
    for (const CCmHttpAtom* pNever :
         {&Atoms::Accept_Charset, &Atoms::Content_Type, &Atoms::Content_Length, &Atoms::User_Agent, &Atoms::Referer,
          &Atoms::Host, &Atoms::Authorization, &Atoms::Proxy_Authorization, &Atoms::If_Modified_Since,
          &Atoms::If_Unmodified_Since, &Atoms::From, &Atoms::Location, &Atoms::Max_Forwards}) {
        if (aAtom == *pNever)
            return FALSE;
    }
    return TRUE;
}

CCmHttpAtom CCmHttpHeaderArray::FindOwnName(std::string_view aName) const {
    for (const auto& pName : m_OwnNames) {
        if (talvo::equal_no_case(*pName, aName))
            return pName->c_str();
    }
    return nullptr;
}

CCmHttpAtom CCmHttpHeaderArray::ResolveName(std::string_view aName) {
    CCmHttpAtom atom;
    talvo::WithMemory([&] { atom = MakeName(aName); });
    return atom;
}

[[gnu::noinline]] CCmHttpAtom CCmHttpHeaderArray::MakeName(std::string_view aName) {
    const std::string_view strName = talvo::trim_spaces(aName);
    const CCmHttpAtom atom = Atoms::FindKnown(strName);
    return atom || strName.empty() ? atom : MakeOtherName(strName);
}

// Of a name that is not empty, has no spaces around it and is no known one.
[[gnu::noinline]] CCmHttpAtom CCmHttpHeaderArray::MakeOtherName(std::string_view aName) {
    // The own names first: the list may have stored one of them since.
    if (!m_OwnNames.empty()) {
        if (const CCmHttpAtom atom = FindOwnName(aName))
            return atom;
    }
    Atoms* pAtoms = Atoms::Instance();  // null without memory: the message keeps the name
    if (const CCmHttpAtom atom = pAtoms ? pAtoms->ResolveOther_i(aName, 1) : CCmHttpAtom())
        return atom;
    m_OwnNames.push_back(std::make_shared<const CCmString>(aName));
    return m_OwnNames.back()->c_str();
}

CCmHttpAtom CCmHttpHeaderArray::ResolveParsed_t(std::string_view aName) {
    if (const CCmHttpAtom atom = Atoms::FindKnown(aName))
        return atom;
    if (talvo::is_token(aName))
        return MakeOtherName(aName);
    m_bTokens = FALSE;
    m_dwFaults |= CM_HTTP_FAULT_NAME;
    return MakeName(aName);
}

BOOL CCmHttpHeaderArray::NoteMemory(BOOL aGood) {
    if (!aGood)
        m_dwFaults |= CM_HTTP_FAULT_MEMORY;
    return aGood;
}

BOOL CCmHttpHeaderArray::ParseLine(std::string_view aLine) { return ParseLine_i(aLine, aLine.find(':')); }

// A head has a dozen lines of a dozen small steps each. Their calls would cost half as much as the steps, so the usual ones are
// in line, and the rare ones above are kept out.
[[gnu::flatten]] BOOL CCmHttpHeaderArray::ParseLine_i(std::string_view aLine, size_t aColon) {
    BOOL bGood = FALSE;
    return NoteMemory(talvo::WithMemory([&] { bGood = TakeLine(aLine, aColon); })) && bGood;
}

BOOL CCmHttpHeaderArray::TakeLine(std::string_view aLine, size_t aColon) {
    if (m_bHeadersComplete)
        return TRUE;
    if (!aLine.empty())
        return m_bFirstLineParsed ? TakeHeaderLine(aLine, aColon, nullptr, nullptr) : ParseAnyFirstLine(aLine);
    if (!m_bFirstLineParsed) {
        CM_ERROR_TRACE_THIS("CCmHttpHeaderArray::ParseLine, no first line!");
        return FALSE;
    }
    m_bHeadersComplete = TRUE;
    return TRUE;
}

[[gnu::noinline]] BOOL CCmHttpHeaderArray::ParseAnyFirstLine(std::string_view aLine) {
    // A usual line gets its terminator here and not on the heap.
    char szLine[1024];
    if (aLine.size() < sizeof(szLine)) {
        szLine[aLine.copy(szLine, sizeof(szLine))] = '\0';
        m_bFirstLineParsed = ParseFirstLine_t(szLine);
    } else {
        m_bFirstLineParsed = ParseFirstLine_t(CCmString(aLine).c_str());
    }
    return m_bFirstLineParsed;
}

BOOL CCmHttpHeaderArray::EndFirstLine_t(BOOL aMemory) {
    m_bFirstLineParsed = aMemory;
    return NoteMemory(aMemory);
}

BOOL CCmHttpHeaderArray::ParseFirstLine_t(const char*) { return FALSE; }

BOOL CCmHttpHeaderArray::ParseHeaderLine(const char* aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue) {
    return aLine && ParseHeaderLine(std::string_view(aLine), aOutAtom, aOutValue);
}

BOOL CCmHttpHeaderArray::ParseHeaderLine(std::string_view aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue) {
    BOOL bGood = FALSE;
    const auto take = [&] { bGood = TakeHeaderLine(aLine, aLine.find(':'), aOutAtom, aOutValue); };
    return NoteMemory(talvo::WithMemory(take)) && bGood;
}

BOOL CCmHttpHeaderArray::TakeHeaderLine(std::string_view aLine, size_t aColon, CCmHttpAtom* aOutAtom, CCmString* aOutValue) {
    const BOOL bColon = aColon != std::string_view::npos;
    const size_t stAt = bColon ? aColon : find_separator(aLine);
    if (stAt == std::string_view::npos || stAt == 0) {
        m_dwFaults |= CM_HTTP_FAULT_NAME;
        return TRUE;
    }
    const CCmHttpAtom atom = ResolveParsed_t(aLine.substr(0, stAt));
    if (!bColon)
        m_dwFaults |= CM_HTTP_FAULT_NAME;
    const std::string_view strValue = aLine.substr(stAt + 1);
    if (aOutAtom)
        *aOutAtom = atom;
    if (aOutValue)
        *aOutValue = strValue;
    Add(atom, strValue);
    return TRUE;
}

BOOL CCmHttpHeaderArray::AddField_i(CCmHttpAtom aAtom, std::string_view aName, std::string_view aValue) {
    return NoteMemory(talvo::WithMemory([&] { Add(aAtom ? aAtom : MakeOtherName(aName), aValue); }));
}

CCmHttpAtom CCmHttpHeaderArray::GuessName_i(std::string_view aName) const {
    if (m_stCount >= m_stGuesses)
        return nullptr;
    const CCmHttpAtom& atom = m_Entries[m_stCount].m_Atom;
    const char* pText = atom;
    return std::string_view(pText) == aName ? atom : CCmHttpAtom();
}

// A received field. May throw std::bad_alloc.
void CCmHttpHeaderArray::Add(const CCmHttpAtom& aAtom, std::string_view aValue) {
    const std::string_view strValue = talvo::trim_spaces(aValue);
    NoteFraming(aAtom, strValue);
    Store(aAtom, strValue, 1);
}

// Records values that SetHeader drops and that affect the end of the message.
void CCmHttpHeaderArray::NoteFraming(const CCmHttpAtom& aAtom, std::string_view aValue) {
    if (aAtom != Atoms::Content_Length && aAtom != Atoms::Transfer_Encoding)
        return;
    const CCmString* pLength = FindHeader(Atoms::Content_Length);
    if (aValue.empty() || (aAtom == Atoms::Content_Length && pLength && *pLength != aValue))
        m_dwFaults |= CM_HTTP_FAULT_LENGTH;
}

long CCmHttpHeaderArray::GetContentLength() const {
    const CCmString* pValue = FindHeader(Atoms::Content_Length);
    if (!pValue)
        return -1;
    const char* pDigit = pValue->c_str() + std::strspn(pValue->c_str(), " \t\n\v\f\r");
    if (*pDigit == '+')
        ++pDigit;
    long lLength = 0;
    for (; *pDigit >= '0' && *pDigit <= '9'; ++pDigit) {
        const int nDigit = *pDigit - '0';
        if (lLength > (LONG_MAX - nDigit) / 10)
            return LONG_MAX;
        lLength = lLength * 10 + nDigit;
    }
    return lLength;
}

void CCmHttpHeaderArray::Flatten(CCmString& aOut) const {
    for (size_t i = 0; i < m_stCount; ++i)
        append_line(aOut, m_Entries[i].m_Atom, m_Entries[i].m_strValue);
}

void CCmHttpHeaderArray::FlattenLines_t(CCmString& aOut) const {
    for (size_t i = 0; i < m_stCount; ++i) {
        const CEntry& entry = m_Entries[i];
        std::string_view strValue = entry.m_strValue;
        for (size_t stEnd; is_merged_by_line(entry.m_Atom) && (stEnd = strValue.find('\n')) != std::string_view::npos;
             strValue.remove_prefix(stEnd + 1))
            append_line(aOut, entry.m_Atom, strValue.substr(0, stEnd));
        append_line(aOut, entry.m_Atom, strValue);
    }
}
