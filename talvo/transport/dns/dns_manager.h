// The addresses of host names, without waiting.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/name_resolver.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_record.h"

class ACmThread;

namespace talvo {
class CDnsState;
}

// Resolves names to IPv4 addresses with a cache. The network thread asks the hosts file and the servers; no thread waits for
// them. All operations may be called from any thread. docs/names.md tells where names are looked up and how long answers live.
class TALVO_API CCmDnsManager : public CCmCleanUpBase, public ICmNameResolver {
public:
    static constexpr size_t MAX_NAME_LENGTH = 253;  // without the dot that may end a name
    static constexpr const char* TOPIC = "DnsManager";

    // Created by the first call. Null: memory ran out, and the next call tries again; never while there is a connection
    // manager.
    static CCmDnsManager* Instance();

    // Asks for the addresses of aHostName. A literal address (any form that CCmInetAddr takes) is answered at once and never
    // looked up; two names that differ in case are one. A name without a dot is also tried in the search domains; a dot at the
    // end prevents that.
    //
    // CM_OK: the cache knows, and aRecord is the record with a reference for the caller; look at its state, it may say that the
    // name has no address. The observer hears nothing.
    // CM_ERROR_WOULD_BLOCK: a look-up is under way, one for all who ask for that name. aObserver, if there is one, hears once
    // for each such call: OnObserve(TOPIC, record), the record a CCmDnsRecord* that lives during the call. It is called from
    // the loop of aThread, or of the calling thread when that is null. It may ask again or cancel from inside. It is not owned:
    // it cancels before it dies.
    // CM_ERROR_INVALID_ARG: the name is empty, too long or has characters that no name can have. CM_ERROR_NULL_POINTER: an
    // observer, but no thread with an event queue to call it in. CM_ERROR_NOT_AVAILABLE: there is no network thread.
    // CM_ERROR_OUT_OF_MEMORY. Memory that runs out later is told as a record of state FAILED.
    //
    // aForced: asks anew although the cache knows; the new answer replaces the one before. A look-up that is under way is new
    // enough. When the network thread ends, those who still wait hear a failure that the cache does not keep.
    CmResult AsyncResolve(CCmDnsRecord*& aRecord, const CCmString& aHostName, ICmObserver* aObserver = nullptr,
                          BOOL aForced = FALSE, ACmThread* aThread = nullptr);

    // aObserver hears of none of the names it has asked for. In the thread in which it is called, nothing follows this call;
    // from another thread a call that is under way there may still end after it. CM_OK; CM_ERROR_NOT_FOUND: it waited for
    // nothing; CM_ERROR_INVALID_ARG: null.
    CmResult CancelResolve(ICmObserver* aObserver);

    // Forgets all answers and reads the configuration, the resolver file and the hosts file again; look-ups under way begin
    // anew. For an application that knows that the network has changed: changed files and keys are noticed without it, within
    // a second of the next question.
    void Refresh();

    // AsyncResolve without an observer; aAddr is the record's first address.
    CmResult ResolveFromCache(const CCmString& aName, DWORD& aAddr) override;

private:
    CCmDnsManager();
    ~CCmDnsManager() override;

    const CCmRefPtrT<talvo::CDnsState> m_pState;
};
