// The headers of a message in order: parsing, merging, printing.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_atom.h"

// Faults of a head's lines that the array does not preserve. A careful receiver refuses such a message, because other readers
// on its way may have read it differently.
enum ECmHttpFault : CmDword {
    CM_HTTP_FAULT_NAME = 0x1,    // a name or method is not a token (also in a folded line), or a line has no colon
    CM_HTTP_FAULT_LENGTH = 0x2,  // Content-Length again with another value, or it or Transfer-Encoding without a value
    CM_HTTP_FAULT_MEMORY = 0x4   // a line was lost because memory ran out
};

// A list of (atom, value) with one entry for each header. A value; one thread at a time. Boolean results are TRUE for success
// or yes.
//
// Entries keep their storage when the array is cleared, so that parsing a sequence of messages soon allocates nothing.
//
// The array keeps a name that the atom list can no longer store. Copies of the array share it, and its atom is valid until all
// of them have been cleared, assigned to or destroyed. ResolveName returns atoms of either kind.
class TALVO_API CCmHttpHeaderArray {
public:
    CCmHttpHeaderArray() = default;
    virtual ~CCmHttpHeaderArray() = default;
    CCmHttpHeaderArray(const CCmHttpHeaderArray&) = default;
    CCmHttpHeaderArray& operator=(const CCmHttpHeaderArray&) = default;

    // Empties everything; TRUE.
    virtual CmBool Clear();

    // Stores aValue without the spaces (0x20) around it. TRUE; FALSE: memory ran out, and nothing changed. If the header
    // exists, the value replaces the old one. With aMerge it is appended after ", " (after a line feed for Set-Cookie,
    // WWW-Authenticate and Proxy-Authenticate), unless CanAppendToHeader excludes merging. An empty value changes nothing with
    // aMerge; without it, it removes the header. The value is not checked: talvo::is_sendable returns whether it may be sent.
    CmBool SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, int aMerge);

    // aValue (out). FALSE, and it is unchanged: there is no such header, or no memory for the copy.
    CmBool GetHeader(const CCmHttpAtom& aAtom, CCmString& aValue) const;
    // The same without a copy; null: there is none. Valid until the array changes.
    const CCmString* FindHeader(const CCmHttpAtom& aAtom) const;
    CmBool PeekHeader(const CCmHttpAtom& aAtom) const { return FindHeader(aAtom) != nullptr; }  // TRUE: there is such a header

    // FALSE for headers whose repetition replaces the value.
    CmBool CanAppendToHeader(const CCmHttpAtom& aAtom) const;

    // The atom under which this array keeps aName: the list's, or the array's own if the list cannot store it. Null: an empty
    // name, or memory ran out.
    CCmHttpAtom ResolveName(std::string_view aName);

    // Parses the next line of a head, without its line end: first line, headers, and the empty line that completes the head.
    // Later lines are ignored. FALSE: the first line is refused (the next line then counts as the first); or an empty line
    // comes before it (with a trace line at level 0); or memory ran out (CM_HTTP_FAULT_MEMORY).
    CmBool ParseLine(std::string_view aLine);

    // Parses a line "name: value", with merging. The separator is the first ':', otherwise the first space, otherwise tab,
    // otherwise '='; a line without one or beginning with it is ignored. TRUE; FALSE: a null line, or memory ran out. aOutAtom,
    // aOutValue (out, may be null): the name and the value of this line; unchanged for an ignored line.
    CmBool ParseHeaderLine(std::string_view aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue);
    CmBool ParseHeaderLine(const char* aLine, CCmHttpAtom* aOutAtom, CCmString* aOutValue);

    // For parsers. The first as ParseLine; aColon: the place of the line's first colon, npos: there is none. The second adds
    // the field of a header line whose name is a token; aAtom: that of FindKnown.
    CmBool ParseLine_i(std::string_view aLine, size_t aColon);
    CmBool AddField_i(CCmHttpAtom aAtom, std::string_view aName, std::string_view aValue);
    // The atom of aName, which is a token, if the message before had it at the place of the next field, in the same case; as
    // most messages of a connection do. Null: look it up.
    CCmHttpAtom GuessName_i(std::string_view aName) const;

    // The leading digits of Content-Length as a number; 0: there are none, or a minus is before them. -1: no such header. A
    // number that is too large for a long gives the largest one.
    long GetContentLength() const;

    CmBool IsComplete() const { return m_bHeadersComplete; }  // the empty line has come
    CmDword GetFaults() const { return m_dwFaults; }          // bits of ECmHttpFault, of the lines parsed since Clear

    // The headers in order; aIndex is below the count.
    size_t GetCount() const { return m_stCount; }
    const CCmHttpAtom& GetName(size_t aIndex) const { return m_Entries[aIndex].m_Atom; }
    const CCmString& GetValue(size_t aIndex) const { return m_Entries[aIndex].m_strValue; }

protected:
    struct CEntry {
        CCmHttpAtom m_Atom;
        CCmString m_strValue;
    };

    // Parses the first line. The array itself has none and returns FALSE.
    virtual CmBool ParseFirstLine_t(const char* aLine);

    // The first line is complete. aMemory: FALSE if memory ran out for it; then the result is FALSE, too.
    CmBool EndFirstLine_t(CmBool aMemory);

    // Appends "name: value\r\n" for every header, with merged values unchanged.
    void Flatten(CCmString& aOut) const;

    // The same in a form that may be sent: a value that was merged with line feeds gives a line for each part.
    void FlattenLines_t(CCmString& aOut) const;

    // aEntry (out): null if there is none.
    void LookupEntry(const CCmHttpAtom& aAtom, CEntry*& aEntry) const;

    // The value of Connection, otherwise of Proxy-Connection; null: neither exists.
    const CCmString* FindConnection_t() const;

    // Resolves a received name. Stores the fault if it is not a token.
    CCmHttpAtom ResolveParsed_t(std::string_view aName);

private:
    CmBool NoteMemory(CmBool aGood);
    CmBool TakeLine(std::string_view aLine, size_t aColon);
    CmBool TakeHeaderLine(std::string_view aLine, size_t aColon, CCmHttpAtom* aOutAtom, CCmString* aOutValue);
    CmBool ParseAnyFirstLine(std::string_view aLine);
    CCmHttpAtom MakeName(std::string_view aName);
    CCmHttpAtom MakeOtherName(std::string_view aName);
    void Add(const CCmHttpAtom& aAtom, std::string_view aValue);
    void Store(const CCmHttpAtom& aAtom, std::string_view aValue, int aMerge);
    void Merge(CEntry& aEntry, std::string_view aValue) const;
    void NoteFraming(const CCmHttpAtom& aAtom, std::string_view aValue);
    CCmHttpAtom FindOwnName(std::string_view aName) const;
    void Append(const CCmHttpAtom& aAtom, std::string_view aValue);
    void Remove(const CEntry* aEntry);

    CmBool m_bHeadersComplete = CM_FALSE;
    CmBool m_bFirstLineParsed = CM_FALSE;
    std::vector<CEntry> m_Entries;  // those from m_stCount on are spare storage
    size_t m_stCount = 0;
    size_t m_stGuesses = 0;      // as many entries had their names in the message before, tokens that the list keeps
    CmBool m_bTokens = CM_TRUE;  // all names since Clear were received as tokens
    uint64_t m_ullMarks = 0;     // a bit of each name that was added: most names that are looked up are not there
    std::vector<std::shared_ptr<const CCmString>> m_OwnNames;
    CmDword m_dwFaults = 0;
};
