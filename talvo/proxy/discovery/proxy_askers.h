// The questions that wait for an answer.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"

class ICmObserver;
class ICmProxySourceSink;

namespace talvo {

// An asker stays in the list until it was called or has cancelled, so that a cancel also stops a call in flight to it. The user
// of this class locks. Only Add needs memory; without it nothing changes.
class CProxyAskers {
public:
    // One of the two; not owned: it cancels before it is deleted.
    struct CTarget {
        ICmObserver* m_pObserver = nullptr;
        ICmProxySourceSink* m_pSink = nullptr;

        const void* GetKey() const {
            return m_pObserver ? static_cast<const void*>(m_pObserver) : static_cast<const void*>(m_pSink);
        }
    };
    struct CAsker {
        CTarget m_Target;
        CCmRefPtrT<CCmThreadLink> m_pLink;  // the thread in which it is called
        CCmString m_strOrigin;
        std::unique_ptr<ICmEvent> m_pNotification;  // carries the answer to it; null: in flight
    };

    // TRUE: the origin has an evaluation under way.
    BOOL IsUnderWay(const CCmString& aOrigin) const { return m_ByOrigin.contains(aOrigin); }
    // The evaluation of aOrigin begins without an asker. Throws std::bad_alloc.
    void Begin(const CCmString& aOrigin) { m_ByOrigin.try_emplace(aOrigin); }
    // Adds aAsker to its origin, and begins the evaluation. Throws std::bad_alloc.
    void Add(CAsker aAsker);
    // Askers, or evaluations if these are more.
    size_t GetCount() const { return std::max(m_Askers.size(), m_ByOrigin.size()); }
    BOOL IsWaiting(const void* aKey) const { return m_ByKey.contains(aKey); }

    // Ends the evaluation of aOrigin, or of any. Returns its askers, which stay in the list; FALSE: there was none.
    std::set<uint64_t> End(const CCmString& aOrigin);
    BOOL EndAny(std::set<uint64_t>& aAskers);

    // The event for an asker, null if the asker has cancelled. aLink (out): the thread for the event.
    std::unique_ptr<ICmEvent> TakeNotification(uint64_t aId, CCmRefPtrT<CCmThreadLink>& aLink);
    // Removes an asker. Returns its target; without one it has cancelled.
    CTarget Take(uint64_t aId);
    // Removes all askers of aKey. FALSE: it has none.
    BOOL Cancel(const void* aKey);

    // The sink of an asker that still waits, or null.
    ICmProxySourceSink* FindSink(uint64_t aId) const;
    // The sinks that wait, and their threads. Throws std::bad_alloc.
    std::vector<std::pair<uint64_t, CCmRefPtrT<CCmThreadLink>>> GetSinks() const;

private:
    uint64_t m_ullLastId = 0;
    std::map<uint64_t, CAsker> m_Askers;
    std::unordered_multimap<const void*, uint64_t> m_ByKey;
    std::unordered_map<CCmString, std::set<uint64_t>> m_ByOrigin;
};

}  // namespace talvo
