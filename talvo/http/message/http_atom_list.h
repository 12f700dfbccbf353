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

// Resolves texts to atoms, for all threads. It has 73 names from the start and stores others that are resolved with creation,
// including names from peers. So it has a limit, beyond which it stores no more and a message keeps its own names. Finding a
// name takes no lock; only storing one takes the mutex.
class TALVO_API CCmHttpAtomList {
public:
    // The first call creates it. It is destroyed with the other process-wide objects, and its stored atoms with it. Null:
    // memory ran out; a later call tries again.
    static CCmHttpAtomList* Instance();

    // A copy has stored the same names, but its atoms of them differ from the original's. Without memory the copy throws.
    CCmHttpAtomList(const CCmHttpAtomList& aOther);
    CCmHttpAtomList& operator=(const CCmHttpAtomList& aOther);
    ~CCmHttpAtomList();

    // The atom of aName without the spaces (0x20) around it, in any case. A new name is stored in the given spelling if aCreate
    // is not 0. The null atom: the name is empty, or new and aCreate is 0, or the table is full or memory ran out. The first
    // time that the table is full is traced.
    CCmHttpAtom ResolveAtom(std::string_view aName, int aCreate);
    // The same of a name that is not empty, has no spaces around it and is no known one.
    CCmHttpAtom ResolveOther_i(std::string_view aName, int aCreate);

    // The known atom of that text, in any case; null if there is none. Any thread.
    static CCmHttpAtom FindKnown(std::string_view aName);

    // Limits the stored names, beside the known ones, and the bytes of their texts with terminators. Names beyond a new,
    // smaller limit stay. Without memory for the mutex the limits do not change.
    void SetLimits(CmDword aMaxNames, CmDword aMaxBytes);
    static constexpr CmDword DEFAULT_MAX_NAMES = 65536;     // the limit of names at first
    static constexpr CmDword DEFAULT_MAX_BYTES = 4u << 20;  // the limit of bytes at first

    // Destroys the mutex; the next stored name creates it again. Call it while no other thread resolves.
    void CleanupMutex();

    // The known atoms, usable at any time, also before main().
#define CM_DECLARE_ATOM(aMember, aText) static const CCmHttpAtom aMember;
    CM_FOR_EACH_HTTP_ATOM(CM_DECLARE_ATOM)
#undef CM_DECLARE_ATOM

private:
    CCmHttpAtomList();

    CCmHttpAtom Store(std::string_view aName);
    CmBool IsFull_l(std::string_view aName) const;
    CCmMutexThread& GetMutex() const;

    std::unique_ptr<talvo::CHttpNameTable> m_pNames;
    mutable std::atomic<CCmMutexThread*> m_pMutex{nullptr};  // owned
    CmDword m_dwMaxNames = DEFAULT_MAX_NAMES;
    CmDword m_dwMaxBytes = DEFAULT_MAX_BYTES;
    CmBool m_bFullTraced = CM_FALSE;
};
