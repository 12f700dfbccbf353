// The application's function that asks the user, and the events that call it.
#pragma once

#include "talvo/event/event_queue.h"
#include "talvo/event/thread_link.h"
#include "talvo/proxy/proxy_functions.h"
#include "talvo/transport/proxy_credentials.h"

namespace talvo {

class CCredentialDesk;

struct CCredentialAsker : CCmReferenceControlT<CCmMutexThread> {
    CCredentialAsker(cm_proxy_asker aCallback, void* aArg, CCmThreadLink& aLink)
        : m_pCallback(aCallback), m_pArg(aArg), m_pLink(&aLink) {}

    const cm_proxy_asker m_pCallback;
    void* const m_pArg;  // the application's
    const CCmRefPtrT<CCmThreadLink> m_pLink;
};

// Asks one question in the asker's thread.
class CAskEvent final : public ICmEvent {
public:
    CAskEvent(CCredentialDesk& aDesk, DWORD aId, const CCmProxyQuestion& aQuestion, const CCmRefPtrT<CCredentialAsker>& aAsker)
        : m_Desk(aDesk), m_dwId(aId), m_Question(aQuestion), m_pAsker(aAsker) {}

    CmResult OnEventFire() override;

private:
    friend class CCredentialDesk;

    CCredentialDesk& m_Desk;
    const DWORD m_dwId;
    const CCmProxyQuestion m_Question;
    const CCmRefPtrT<CCredentialAsker> m_pAsker;
};

// Notices the end of a thread that has set an asker. One for each such thread; deletes itself then.
class CAskerThread final : public CCmThreadTenant {
public:
    CAskerThread(CCredentialDesk& aDesk, CCmThreadLink& aLink) : m_Desk(aDesk), m_Link(aLink) { JoinCurrentThread(); }

    void OnThreadEnd() override;

private:
    friend class CCredentialDesk;

    CCredentialDesk& m_Desk;
    CCmThreadLink& m_Link;
};

}  // namespace talvo
