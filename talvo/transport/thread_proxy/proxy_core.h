// What the thread proxies share: two threads, and who keeps whom alive.
#pragma once

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"

namespace talvo {

// The inside of a thread proxy. The proxy itself is a handle that only the user counts references of; whatever is under way
// between the threads holds the core. So the user's last release is seen as such, and no upcall follows it, even if one has
// been posted already.
//
// Work crosses threads only as events; an event that its thread refuses or drops lets go of the core like one that ran. While
// the core is hosted it keeps something alive in the network thread, holds a reference on itself, and hears of that thread's
// end.
class TALVO_API CProxyCore : public CCmReferenceControlT<CCmMutexThread>, public CCmThreadTenant {
public:
    CProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork) : m_pUser(&aUser), m_pNetwork(&aNetwork) {}

    CCmThreadLink& GetUser() const { return *m_pUser; }
    CCmThreadLink& GetNetwork() const { return *m_pNetwork; }

    // The user has let go of the proxy, in whatever thread.
    virtual void Abandon() = 0;

protected:
    // Network thread. FALSE: the thread is ending, nothing is hosted any more. Leave_i may delete this object: it comes last.
    BOOL Host_i();
    void Leave_i();

    // An event that lives in its core, for what is posted all the time: at most one post of it is waiting, so nothing is
    // allocated. Runs Method of the core or, when it is refused or dropped because its thread has ended, Dropped if that is
    // given.
    template <class Core, void (Core::*Method)(), auto Dropped = nullptr>
    class CEmbeddedEventT final : public ICmEvent {
    public:
        explicit CEmbeddedEventT(Core& aCore) : m_Core(aCore) {}
        CmResult Post(CCmThreadLink& aThread) {
            m_Core.AddReference();
            return aThread.PostEvent(this);
        }
        CmResult PostQuietly(CCmThreadLink& aThread) {
            m_Core.AddReference();
            return aThread.PostEventQuietly(this);
        }
        CmResult OnEventFire() override {
            m_bFired = TRUE;
            (m_Core.*Method)();
            return CM_OK;
        }
        void OnDestorySelf() override {
            if (!m_bFired.exchange(FALSE)) {
                if constexpr (!std::is_null_pointer_v<decltype(Dropped)>)
                    (m_Core.*Dropped)();
            }
            m_Core.ReleaseReference();
        }

    private:
        Core& m_Core;
        std::atomic<BOOL> m_bFired{FALSE};  // between OnEventFire and OnDestorySelf of one post
    };

private:
    CCmRefPtrT<CCmThreadLink> m_pUser;
    CCmRefPtrT<CCmThreadLink> m_pNetwork;
    CCmRefPtrT<CProxyCore> m_pSelf;  // while hosted
};

// The handle: implements Interface over a core. Released last in the user's thread it is deleted in the network thread, after
// everything that was posted there before; released last in any other thread, at once.
template <class Interface, class Core>
class CThreadProxyT : public Interface, public CCmReferenceControlT<CCmMutexThread> {
public:
    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

protected:
    explicit CThreadProxyT(CCmRefPtrT<Core> aCore) : m_pCore(std::move(aCore)) {}

    // A Proxy over a new core; null: memory ran out.
    template <class Proxy, class... Arguments>
    static CCmRefPtrT<Proxy> Make_i(Arguments&&... aArguments) {
        CCmRefPtrT<Core> pCore(new (std::nothrow) Core(std::forward<Arguments>(aArguments)...));
        return CCmRefPtrT<Proxy>(pCore ? new (std::nothrow) Proxy(std::move(pCore)) : nullptr);
    }

    void OnReferenceDestory() override {
        const CCmRefPtrT<Core> pCore = m_pCore;
        pCore->Abandon();
        if (!pCore->GetUser().IsCurrentThread()) {
            delete this;
            return;
        }
        pCore->GetNetwork().PostEvent(&m_Deletion);
    }

    const CCmRefPtrT<Core> m_pCore;

private:
    // Part of what it deletes, so that a release needs no memory.
    class CDeletion final : public ICmEvent {
    public:
        explicit CDeletion(CThreadProxyT& aProxy) : m_Proxy(aProxy) {}
        CmResult OnEventFire() override { return CM_OK; }
        void OnDestorySelf() override { delete &m_Proxy; }

    private:
        CThreadProxyT& m_Proxy;
    };

    CDeletion m_Deletion{*this};
};

}  // namespace talvo
