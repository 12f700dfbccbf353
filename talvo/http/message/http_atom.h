// A header name or a method as a pointer to its one spelling.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// A value: a pointer to a zero-terminated text, which it does not own. Two atoms name the same header if and only if their
// pointers are equal; aLeft == aRight compares only these. Null is no atom.
//
// Atoms come from CCmHttpAtomList, which resolves a text in any case to its canonical spelling. Beyond that list's limits they
// come from a message (CCmHttpHeaderArray::ResolveName) and live as long as it. An atom of any other text can be ordered and
// compared, but names no header.
class TALVO_API CCmHttpAtom {
public:
    constexpr CCmHttpAtom(const char* aText = nullptr) : m_pText(aText) {}  // aText: not owned

    constexpr operator const char*() const { return m_pText; }  // the text, or null

    // Compares the texts case-insensitively (ASCII letters only), byte by byte as unsigned numbers with letters in lower case.
    // The null atom is before every other.
    bool operator<(const CCmHttpAtom& aRight) const;

private:
    const char* m_pText;
};

// TRUE: an atom's text equals that of the atom given first, in any case. Only the null atom matches the null atom.
class TALVO_API CCmAtomTablesFind {
public:
    explicit CCmAtomTablesFind(const CCmHttpAtom& aAtom) : m_Atom(aAtom) {}  // the atom given first
    bool operator()(const CCmHttpAtom& aCandidate) const;                    // compares aCandidate with it

private:
    CCmHttpAtom m_Atom;
};
