// Resolves host names without blocking.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/name_resolver.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_record.h"

class ACmThread;

namespace talvo {
class CDnsState;
class CNameLookup;
enum class EDnsWait;
}  // namespace talvo

// Resolves names to IPv4 and IPv6 addresses with a cache. The network thread asks the hosts file and the servers; no thread
// blocks on them. Any thread may call all operations. docs/names.md describes the sources and the lifetimes of answers.
class TALVO_API CCmDnsManager : public CCmCleanUpBase, public ICmNameResolver {
public:
    static constexpr size_t MAX_NAME_LENGTH = 253;      // without the dot that may end a name
    static constexpr const char* TOPIC = "DnsManager";  // of the observer's call

    // The first call creates it. Null: memory ran out, and the next call tries again. Never null while there is a connection
    // manager.
    static CCmDnsManager* Instance();

    // Requests the addresses of aHostName. A literal address (any form that CCmInetAddr accepts) is answered at once and never
    // looked up. Names are case-insensitive. A name without a dot is also tried in the search domains; a dot at the end
    // prevents that.
    //
    // CM_OK: aRecord (out) is the cached record with a reference for the caller. Check its state: the name may have no address.
    // The observer is not called. Both families are asked at the same time. If one answers with addresses, the record waits
    // 50 ms for the other, and is partial after that.
    // CM_ERROR_WOULD_BLOCK: a look-up is under way, shared by all requests for that name. aObserver, if there is one, is called
    // once for each such call: OnObserve(TOPIC, record), where record is a CCmDnsRecord* that is valid during the call. The
    // call comes from the loop of aThread, or of the calling thread if that is null. Inside it the observer may request again
    // or cancel. It is not owned: it must cancel before it is deleted.
    // CM_ERROR_INVALID_ARG: the name is empty, too long or has characters that no name can have. CM_ERROR_NULL_POINTER: there
    // is an observer, but no thread with an event queue to call it in. CM_ERROR_NOT_AVAILABLE: there is no network thread.
    // CM_ERROR_OUT_OF_MEMORY. If memory runs out later, the observer gets a record of state FAILED.
    //
    // aForced: repeats the look-up of a cached name, and replaces the cached answer. A look-up under way is recent enough. If
    // the network thread ends, all waiting observers get a failure that is not cached.
    CmResult AsyncResolve(CCmDnsRecord*& aRecord, const CCmString& aHostName, ICmObserver* aObserver = nullptr,
                          CmBool aForced = CM_FALSE, ACmThread* aThread = nullptr);

    // Cancels all requests of aObserver. In the thread in which it is called, no call follows; in another thread, a call under
    // way may end after this function. CM_OK. CM_ERROR_NOT_FOUND: it waited for no name. CM_ERROR_INVALID_ARG: null.
    CmResult CancelResolve(ICmObserver* aObserver);

    // Drops all answers and reads the configuration, the resolver file and the hosts file again; look-ups under way start
    // again. For an application that detects a change of the network: changed files and keys are detected without it, within a
    // second of the next request.
    void Refresh();

    // AsyncResolve without an observer. aIp (out): the record's first IPv4 address, or else its first IPv6 address: an address
    // that is completed stands alone, and IPv4 works on more machines.
    CmResult ResolveFromCache(const CCmString& aName, talvo::CIpBytes& aIp) override;

private:
    friend class talvo::CNameLookup;

    CCmDnsManager();
    ~CCmDnsManager() override;

    CmResult Resolve_i(CCmDnsRecord*& aRecord, const CCmString& aHostName, ICmObserver* aObserver, talvo::EDnsWait aWait,
                       ACmThread* aThread);

    const CCmRefPtrT<talvo::CDnsState> m_pState;
};
