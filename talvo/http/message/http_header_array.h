// The headers of a message, in order, and how they are read, merged and printed.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_atom.h"

// What a head's lines did that the array has no room for. A careful receiver refuses such a message, as others on its way may
// have read it differently.
enum ECmHttpFault : DWORD {
    CM_HTTP_FAULT_NAME = 0x1,    // a name or method that is no token (a folded line too), or a line without a colon
    CM_HTTP_FAULT_LENGTH = 0x2,  // Content-Length again with another value, or it or Transfer-Encoding without one
    CM_HTTP_FAULT_MEMORY = 0x4   // a line was lost, because memory ran out
};

// A list of (atom, value) with one entry for each header. A value; one thread at a time. Booleans are TRUE for success or yes.
//
// Entries keep their storage when the array is cleared, so that parsing one message after the other soon allocates nothing.
//
// A name that the atom list can no longer learn is kept by the array: copies of the array share it, and its atom is good as
// long as one of them has not been cleared, assigned to or destroyed. ResolveName gives atoms of either kind.
class TALVO_API CCmHttpHeaderArray {
public:
    CCmHttpHeaderArray() = default;
    virtual ~CCmHttpHeaderArray() = default;
    CCmHttpHeaderArray(const CCmHttpHeaderArray&) = default;
    CCmHttpHeaderArray& operator=(const CCmHttpHeaderArray&) = default;

    // Empties everything; TRUE.
    virtual BOOL Clear();

    // Stores aValue without the spaces (0x20) around it; TRUE, or FALSE when memory ran out and nothing changed. If the header
    // is there already, the value replaces the old one, or with aMerge is put behind it after ", " (after a line feed for
    // Set-Cookie, WWW-Authenticate and Proxy-Authenticate), unless CanAppendToHeader says that it is never merged. An empty
    // value changes nothing with aMerge, without it removes the header. The value is not checked: talvo::is_sendable says
    // whether it may go out.
    BOOL SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, int aMerge);

    // FALSE, and aValue untouched: there is no such header, or no memory for the copy.
    BOOL GetHeader(const CCmHttpAtom& aAtom, CCmString& aValue) const;
    // The same without a copy: null if there is none. Valid until the array changes.
    const CCmString* FindHeader(const CCmHttpAtom& aAtom) const;
    BOOL PeekHeader(const CCmHttpAtom& aAtom) const { return FindHeader(aAtom) != nullptr; }

    // FALSE for the headers of which a repeat replaces the value.
    BOOL CanAppendToHeader(const CCmHttpAtom& aAtom) const;

    // The atom under which this array keeps aName: the list's, or, if that cannot learn it, the array's own. Null: an empty
    // name, or memory ran out.
    CCmHttpAtom ResolveName(std::string_view aName);

    // Takes the next line of a head, without its line end: first line, headers, and the empty line that completes it, behind
    // which lines are ignored. FALSE: the first line is refused (the next is then taken for one), or is missing before an empty
    // one (with a line at level 0), or memory ran out (CM_HTTP_FAULT_MEMORY).
    BOOL ParseLine(std::string_view aLine);

    // Takes a line "name: value", with merging. The separator is the first ':', else the first space, else tab, else '='; a
    // line without one or beginning with it is ignored. TRUE, except for a null line and when memory ran out. aOutAtom and
    // aOutValue, if given, get what was found, the value as it stands; of an ignored line nothing.
    BOOL ParseHeaderLine(std::string_view aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue);
    BOOL ParseHeaderLine(const char* aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue);

    // The leading digits of Content-Length as a number; 0: there are none, or a minus is before them. -1: no such header. What
    // is too large for a long gives the largest one.
    long GetContentLength() const;

    BOOL IsComplete() const { return m_bHeadersComplete; }
    DWORD GetFaults() const { return m_dwFaults; }  // bits of ECmHttpFault, of what was parsed since Clear

    // The headers in order; aIndex is below the count.
    size_t GetCount() const { return m_stCount; }
    const CCmHttpAtom& GetName(size_t aIndex) const { return m_Entries[aIndex].m_Atom; }
    const CCmString& GetValue(size_t aIndex) const { return m_Entries[aIndex].m_strValue; }

protected:
    struct CEntry {
        CCmHttpAtom m_Atom;
        CCmString m_strValue;
    };

    // Reads the first line; the array itself knows none and gives FALSE.
    virtual BOOL ParseFirstLine_t(const char* aLine);

    // Appends "name: value\r\n" for every header, merged values as they stand.
    void Flatten(CCmString& aOut) const;

    // The same as it may be sent: a value that was merged with line feeds gives a line for each part.
    void FlattenLines_t(CCmString& aOut) const;

    // Null if there is none.
    void LookupEntry(const CCmHttpAtom& aAtom, CEntry*& aEntry) const;

    // The value of Connection, else of Proxy-Connection; null if neither is there.
    const CCmString* FindConnection_t() const;

    // Resolves a name of the wire; remembers the fault if it is no token.
    CCmHttpAtom ResolveParsed_t(std::string_view aName);

private:
    BOOL NoteMemory(BOOL aGood);
    BOOL TakeLine(std::string_view aLine);
    BOOL TakeHeaderLine(std::string_view aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue);
    BOOL ParseAnyFirstLine(std::string_view aLine);
    CCmHttpAtom MakeName(std::string_view aName);
    void Merge(CEntry& aEntry, std::string_view aValue) const;
    void NoteFraming(const CCmHttpAtom& aAtom, std::string_view aValue);
    CCmHttpAtom FindOwnName(std::string_view aName) const;
    void Append(const CCmHttpAtom& aAtom, std::string_view aValue);
    void Remove(const CEntry* aEntry);

    BOOL m_bHeadersComplete = FALSE;
    BOOL m_bFirstLineParsed = FALSE;
    std::vector<CEntry> m_Entries;  // those from m_stCount on are spare storage
    size_t m_stCount = 0;
    std::vector<std::shared_ptr<const CCmString>> m_OwnNames;
    DWORD m_dwFaults = 0;
};
