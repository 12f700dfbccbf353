// The common part of acceptors.
#pragma once

#include "talvo/event/home_reactor.h"
#include "talvo/event/thread_link.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/socket_settings.h"

class ACmThread;

// Lives in the network thread, whose reactor it takes at construction; other threads use the acceptor thread proxy.
//
// A derived class begins StartListen with the checks that ICmAcceptor lists and CheckListen_i, and ends it with m_pSink and
// Listening_i. Its StopListen may be called at any time; it clears m_pSink and calls LeaveThread. Its destructor calls
// StopListen. An indication may release the acceptor, which accesses no member afterwards.
class TALVO_API CCmAcceptorBase : public ICmAcceptor,
                                  public CCmReferenceControlT<CCmMutexNullSingleThread>,
                                  public talvo::CConnectOptions,
                                  protected CCmThreadTenant {
public:
    CCmAcceptorBase();

    CmDword AddReference() override { return CCmReferenceControlT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    CmBool IsConnector() override { return CM_FALSE; }

protected:
    CCmFailure GetFailure() const override { return m_Failure; }
    CmResult SetOption_i(CmDword aCommand, void* aArg) override { return m_Sockets.SetOption(aCommand, aArg); }
    CmResult GetOption_i(CmDword aCommand, void* aArg) override { return m_Sockets.GetOption(aCommand, aArg); }
    // CheckListen_i: CM_OK: it may listen now. CM_ERROR_NOT_INITIALIZED: there is no network thread. CM_ERROR_NOT_AVAILABLE:
    // CCmConnectionManager::Drain runs. Listening_i: from now on it listens.
    CmResult CheckListen_i();
    void Listening_i();

    CCmEnsureSingleThread m_Est;
    ACmThread* const m_pThreadNetwork;            // not owned
    const talvo::CHomeReactor m_pReactor;         // null: there is no network thread
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // not owned; set while listening
    CCmFailure m_Failure;                         // of the last StartListen
    talvo::CSocketSettings m_Sockets;             // the user's values

private:
    void OnThreadEnd() override {}
    void OnDrain(ECmDrainStage aStage) override;
};
