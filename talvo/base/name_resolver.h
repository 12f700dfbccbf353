// The interface through which an address resolves its name, independent of the resolver.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/ip_bytes.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// The process's name resolver implements it. An application may install its own.
class TALVO_API ICmNameResolver {
public:
    // Never waits. aIp (out): the first cached address of aName, or none if the name has none. CM_OK: from the cache.
    // CM_ERROR_WOULD_BLOCK: a look-up is under way. Any other result: the name cannot be looked up. Any thread.
    virtual CmResult ResolveFromCache(const CCmString& aName, talvo::CIpBytes& aIp) = 0;
    virtual ~ICmNameResolver();

    // The process-wide resolver; null until one is installed. Not owned.
    static ICmNameResolver* Get();
    static void Set(ICmNameResolver* aResolver);  // null: none. Any thread
};
