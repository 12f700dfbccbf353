// The common core of the thread proxies: two threads, and the references between them.
#pragma once

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/thread_link.h"

namespace talvo {

// The core of a thread proxy. The proxy itself is a handle; only the user holds references to it, and events in flight between
// the threads hold the core. So the user's last release is detected, and no upcall follows it, not even one that has been
// posted already.
//
// Work crosses threads only as events. An event that its thread refuses or drops releases the core like one that ran. A hosted
// core keeps an object alive in the network thread, holds a reference to itself, and is notified of that thread's end.
class TALVO_API CProxyCore : public CCmReferenceControlT<CCmMutexThread>, public CCmThreadTenant {
public:
    CProxyCore(CCmThreadLink& aUser, CCmThreadLink& aNetwork) : m_pUser(&aUser), m_pNetwork(&aNetwork) {}

    CCmThreadLink& GetUser() const { return *m_pUser; }
    CCmThreadLink& GetNetwork() const { return *m_pNetwork; }

    // The user has released the proxy, in any thread.
    virtual void Abandon() = 0;

protected:
    // Network thread. FALSE: the thread is ending and hosts no more cores. Leave_i may delete this object: call it last.
    CmBool Host_i();
    void Leave_i();

    // An event inside its core, for frequent posts: at most one post of it is queued, so it needs no allocation. Runs Method of
    // the core. If it is refused or dropped because its thread has ended, runs Dropped, if given. A core posts it to one thread
    // only.
    template <class Core, void (Core::*Method)(), auto Dropped = nullptr>
    class CEmbeddedEventT final : public ICmEvent {
    public:
        explicit CEmbeddedEventT(Core& aCore) : m_Core(aCore) {}
        // Any thread. CM_OK: Method runs after this call; the post is this one or an earlier one. Otherwise the refusal of
        // PostEvent.
        CmResult Post(CCmThreadLink& aThread) { return Begin_i() ? aThread.PostEvent(this) : CM_OK; }
        CmResult PostQuietly(CCmThreadLink& aThread) { return Begin_i() ? aThread.PostEventQuietly(this) : CM_OK; }
        // A post is queued, and Method has not begun.
        CmBool IsPosted() const { return m_bPosted; }

        CmResult OnEventFire() override {
            m_bFired = CM_TRUE;
            m_bPosted = CM_FALSE;
            (m_Core.*Method)();
            return CM_OK;
        }
        void OnDestorySelf() override {
            if (!m_bFired.exchange(CM_FALSE)) {
                m_bPosted = CM_FALSE;
                if constexpr (!std::is_null_pointer_v<decltype(Dropped)>)
                    (m_Core.*Dropped)();
            }
            m_Core.ReleaseReference();
        }

    private:
        CmBool Begin_i() {
            if (m_bPosted || m_bPosted.exchange(CM_TRUE))  // a burst costs the first exchange only
                return CM_FALSE;
            m_Core.AddReference();
            return CM_TRUE;
        }

        Core& m_Core;
        std::atomic<CmBool> m_bPosted{CM_FALSE};
        std::atomic<CmBool> m_bFired{CM_FALSE};  // between OnEventFire and OnDestorySelf of one post
    };

private:
    CCmRefPtrT<CCmThreadLink> m_pUser;
    CCmRefPtrT<CCmThreadLink> m_pNetwork;
    CCmRefPtrT<CProxyCore> m_pSelf;  // while hosted
};

// The handle: implements Interface over a core. After a last release in the user's thread it is deleted in the network thread,
// after all events posted there before; after a last release in any other thread, at once.
template <class Interface, class Core>
class CThreadProxyT : public Interface, public CCmReferenceControlT<CCmMutexThread> {
public:
    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }

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
    // Part of the object that it deletes, so that a release needs no memory.
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
