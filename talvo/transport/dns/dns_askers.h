// The look-ups under way and their askers.
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

// The names under look-up and the observers of each. An asker stays in the list until it was called or has cancelled, so that a
// cancel also stops a call in flight to it. The user of this class locks. Only Begin and Add need memory; without it nothing
// changes.
class CDnsAskers {
public:
    struct CAsker {
        ICmObserver* m_pObserver;           // not owned: cancels before it is deleted
        CCmRefPtrT<CCmThreadLink> m_pLink;  // the thread in which it is called
        CCmString m_strName;
        BOOL m_bEarly;                              // called when the first answer has come
        std::unique_ptr<ICmEvent> m_pNotification;  // carries the record to it; null: in flight
    };
    struct CLookUp {
        std::set<uint64_t> m_Askers;           // in the order of their requests
        CCmRefPtrT<CCmDnsRecord> m_pNoMemory;  // the outcome if there is no memory for another
    };

    // TRUE: the look-up of aName is new. Throws std::bad_alloc.
    BOOL Begin(const CCmString& aName, const CCmRefPtrT<CCmDnsRecord>& aNoMemory);
    BOOL IsUnderWay(const CCmString& aName) const { return m_ByName.contains(aName); }
    // Adds aAsker to the look-up of its name. FALSE: memory ran out.
    BOOL Add(CAsker aAsker);

    // Removes the early askers from the look-up of aName; they get a record of their own.
    CLookUp TakeEarly(const CCmString& aName);
    // Ends the look-up of aName, or any one. Without m_pNoMemory in the result there was no look-up.
    CLookUp End(const CCmString& aName);
    CLookUp EndAny();

    // The event for an asker, null if the asker has cancelled. aLink (out): the thread for the event.
    std::unique_ptr<ICmEvent> TakeNotification(uint64_t aId, CCmRefPtrT<CCmThreadLink>& aLink);
    // Removes an asker. Returns its observer; null: it has cancelled.
    ICmObserver* Take(uint64_t aId);
    // Removes all askers of aObserver. FALSE: it has none.
    BOOL Cancel(ICmObserver* aObserver);

private:
    uint64_t m_ullLastId = 0;
    std::map<uint64_t, CAsker> m_Askers;
    std::unordered_multimap<ICmObserver*, uint64_t> m_ByObserver;
    std::unordered_map<CCmString, CLookUp> m_ByName;
};

}  // namespace talvo
