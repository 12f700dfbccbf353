// A header name or a method as a pointer to its one spelling.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// A value: the pointer to a zero-terminated text that somebody else keeps. Two atoms name the same header exactly when their
// pointers are equal (aLeft == aRight compares just those). Null is no atom.
//
// Atoms come from CCmHttpAtomList, which resolves a text to its canonical spelling whatever its case, or, beyond that list's
// limits, from a message (CCmHttpHeaderArray::ResolveName) and then live as long as it. An atom made of any other text is
// ordered and compared like any, but names no header.
class TALVO_API CCmHttpAtom {
public:
    constexpr CCmHttpAtom(const char* aText = nullptr) : m_pText(aText) {}

    constexpr operator const char*() const { return m_pText; }

    // By text without regard to the case of ASCII letters, byte by byte as unsigned numbers with letters in lower case. The
    // null atom is before every other.
    bool operator<(const CCmHttpAtom& aRight) const;

private:
    const char* m_pText;
};

// Whether an atom's text is that of the atom given first, whatever the case. The null atom is found by the null atom only.
class TALVO_API CCmAtomTablesFind {
public:
    explicit CCmAtomTablesFind(const CCmHttpAtom& aAtom) : m_Atom(aAtom) {}
    bool operator()(const CCmHttpAtom& aCandidate) const;

private:
    CCmHttpAtom m_Atom;
};
