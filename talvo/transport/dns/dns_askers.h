// Who waits for which name.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"
#include "talvo/transport/dns/dns_record.h"

class ICmObserver;

namespace talvo {

// The names that are looked up, and those who want to hear. An asker stays known until it has been told or has cancelled, so
// that a cancel also reaches what is on its way to it. Its user locks. Begin and Add alone need memory; without it
// nothing changes.
class CDnsAskers {
public:
    struct CAsker {
        ICmObserver* m_pObserver;           // not owned: cancels before it dies
        CCmRefPtrT<CCmThreadLink> m_pLink;  // where it is called
        CCmString m_strName;
        std::unique_ptr<ICmEvent> m_pTell;  // carries the record to it; null: is on its way
    };
    struct CLookUp {
        std::set<uint64_t> m_Askers;           // in the order in which they asked
        CCmRefPtrT<CCmDnsRecord> m_pNoMemory;  // the outcome if there is no memory for another
    };

    // TRUE: aName was not being looked up before, and is now. Throws std::bad_alloc.
    BOOL Begin(const CCmString& aName, const CCmRefPtrT<CCmDnsRecord>& aNoMemory);
    // aName is being looked up; aTell will carry the record to aObserver. FALSE: memory ran out.
    BOOL Add(const CCmString& aName, ICmObserver* aObserver, CCmRefPtrT<CCmThreadLink> aLink, std::unique_ptr<ICmEvent> aTell);

    // The look-up of aName, or any, is over. Without a record: there was none.
    CLookUp End(const CCmString& aName);
    CLookUp EndAny();

    // The event for an asker and the thread that it goes to, null when the asker has cancelled.
    std::unique_ptr<ICmEvent> TakeTell(uint64_t aId, CCmRefPtrT<CCmThreadLink>& aLink);
    // Takes an asker out: its observer, null when it has cancelled.
    ICmObserver* Take(uint64_t aId);
    // Takes out all askers of aObserver; FALSE: it has none.
    BOOL Cancel(ICmObserver* aObserver);

private:
    uint64_t m_ullLastId = 0;
    std::map<uint64_t, CAsker> m_Askers;
    std::unordered_multimap<ICmObserver*, uint64_t> m_ByObserver;
    std::unordered_map<CCmString, CLookUp> m_ByName;
};

}  // namespace talvo
