// The one table of header names and methods.
#pragma once

#include <atomic>
#include <memory>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/mutex.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_atom.h"
#include "talvo/http/message/http_known_atoms.h"

namespace talvo {
class CHttpNameTable;
}

// Resolves texts to atoms, for all threads. It knows 73 names from the start and learns others from whoever resolves them with
// creation, peers included: that is why it has a limit, behind which it learns no more and a message keeps its own names.
// What it knows or has learned is found without a lock; only learning takes the mutex.
class TALVO_API CCmHttpAtomList {
public:
    // Made by the first call and destroyed with the other process-wide objects; atoms it has learned are then gone as well.
    // Null: memory ran out; a later call tries again.
    static CCmHttpAtomList* Instance();

    // A copy has learned the same names, but its atoms of them are not the original's. Without memory copying throws.
    CCmHttpAtomList(const CCmHttpAtomList& aOther);
    CCmHttpAtomList& operator=(const CCmHttpAtomList& aOther);
    ~CCmHttpAtomList();

    // The atom of aName without the spaces (0x20) around it, whatever its case. A name that is new is learned in the spelling
    // given if aCreate is not 0. The null atom: the name is empty, or new and not to be learned, or the table is full or memory
    // ran out (the first time the table is full there is a line).
    CCmHttpAtom ResolveAtom(std::string_view aName, int aCreate);

    // The known atom of exactly that text, whatever its case; null if it is none. Any thread.
    static CCmHttpAtom FindKnown(std::string_view aName);

    // What may be learned beside the known names: that many, and that many bytes of text with terminators. Names beyond a new
    // and smaller limit stay. Without memory for the mutex the limits stay as they are.
    void SetLimits(DWORD aMaxNames, DWORD aMaxBytes);
    static constexpr DWORD DEFAULT_MAX_NAMES = 65536;
    static constexpr DWORD DEFAULT_MAX_BYTES = 4u << 20;

    // Destroys the mutex, which the next name to be learned makes again. While no other thread resolves.
    void CleanupMutex();

    // The known atoms, usable at any time, also before main().
#define CM_DECLARE_ATOM(aMember, aText) static const CCmHttpAtom aMember;
    CM_FOR_EACH_HTTP_ATOM(CM_DECLARE_ATOM)
#undef CM_DECLARE_ATOM

private:
    CCmHttpAtomList();

    CCmHttpAtom Learn(std::string_view aName);
    BOOL IsFull_l(std::string_view aName) const;
    CCmMutexThread& GetMutex() const;

    std::unique_ptr<talvo::CHttpNameTable> m_pNames;
    mutable std::atomic<CCmMutexThread*> m_pMutex{nullptr};  // owned
    DWORD m_dwMaxNames = DEFAULT_MAX_NAMES;
    DWORD m_dwMaxBytes = DEFAULT_MAX_BYTES;
    BOOL m_bFullTraced = FALSE;
};
