// A report from the loop that needs no memory when it is due.
#pragma once

#include <utility>

#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"

namespace talvo {

// A member of its owner, a reference-counted object of one thread with an event queue. It runs the owner's Method from that
// thread's loop, unless the last reference of others has been released before.
template <class Owner, void (Owner::*Method)()>
class CLaterReportT final : private ICmEvent {
public:
    explicit CLaterReportT(Owner& aOwner) : m_Owner(aOwner) {}

    // Owner's thread. Keeps the owner alive until the loop has run the report. FALSE: the thread has ended.
    CmBool Arm() {
        if (m_bPosted)
            return m_bDue = CM_TRUE;
        ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
        if (!pThread)
            return CM_FALSE;
        m_bDue = m_bPosted = CM_TRUE;
        m_Owner.AddReference();
        return pThread->GetLink().PostEvent(this) == CM_OK;
    }
    // Suppresses the report until the next Arm.
    void Cancel() { m_bDue = CM_FALSE; }
    CmBool IsDue() const { return m_bDue; }
    // TRUE: the event's own reference is the owner's last one, so that nobody is to be called.
    CmBool IsOrphan() const { return m_bPosted && m_Owner.GetReference() == 1; }

private:
    CmResult OnEventFire() override {
        const CmBool bOrphan = IsOrphan();
        m_bPosted = CM_FALSE;
        if (std::exchange(m_bDue, CM_FALSE) && !bOrphan)
            (m_Owner.*Method)();
        return CM_OK;
    }
    void OnDestorySelf() override { m_Owner.ReleaseReference(); }

    Owner& m_Owner;
    CmBool m_bDue = CM_FALSE;
    CmBool m_bPosted = CM_FALSE;
};

}  // namespace talvo
