// Who waits for which name.
#pragma once

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"

class ICmObserver;

namespace talvo {

// The names that are looked up, and those who want to hear. An asker stays known until it has been told or has cancelled, so
// that a cancel also reaches what is on its way to it. Its user locks.
class CDnsAskers {
public:
    struct CAsker {
        ICmObserver* m_pObserver;           // not owned: cancels before it dies
        CCmRefPtrT<CCmThreadLink> m_pLink;  // where it is called
        CCmString m_strName;
    };

    // TRUE: aName was not being looked up before.
    BOOL Begin(const CCmString& aName);
    void Add(const CCmString& aName, ICmObserver* aObserver, CCmRefPtrT<CCmThreadLink> aLink);

    // The look-up of aName is over: those who want to hear of it, in the order in which they asked.
    std::vector<uint64_t> End(const CCmString& aName);

    // The thread that shall call an asker, null when it has cancelled.
    CCmRefPtrT<CCmThreadLink> GetLink(uint64_t aId) const;
    // Takes an asker out: its observer, null when it has cancelled.
    ICmObserver* Take(uint64_t aId);
    // Takes out all askers of aObserver; FALSE: it has none.
    BOOL Cancel(ICmObserver* aObserver);

    std::vector<CCmString> GetNames() const;

private:
    uint64_t m_ullLastId = 0;
    std::map<uint64_t, CAsker> m_Askers;
    std::unordered_multimap<ICmObserver*, uint64_t> m_ByObserver;
    std::unordered_map<CCmString, std::set<uint64_t>> m_ByName;
};

}  // namespace talvo
