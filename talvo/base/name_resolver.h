// How an address gets at the addresses of a name without knowing who resolves names.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Filled by whoever resolves names for the process; an application may bring its own.
class TALVO_API ICmNameResolver {
public:
    // Never waits. CM_OK: aAddr is the first address of aName (network byte order) if the cache knows it, 0xFFFFFFFF if it
    // knows that the name has none. CM_ERROR_WOULD_BLOCK: a look-up is under way. Anything else: it cannot be looked up. Any
    // thread.
    virtual CmResult ResolveFromCache(const CCmString& aName, DWORD& aAddr) = 0;
    virtual ~ICmNameResolver();

    // The process-wide slot; null while nobody has filled it. Not owned.
    static ICmNameResolver* Get();
    static void Set(ICmNameResolver* aResolver);
};
