// The handshakes of one connection, under way.
#pragma once

#include <utility>

#include "talvo/base/time_value.h"
#include "talvo/event/home_reactor.h"
#include "talvo/transport/tcp/handshake.h"

namespace talvo {

// Runs the handshakes of a connected, unopened transport one after the other. One use, in the thread of its reactor.
class CHandshakeRun final : public ACmEventHandler, private ICmTimerHandler {
public:
    class IOwner {
    public:
        // The one report of a run that is under way. May delete aRun.
        virtual void OnHandshakeDone(CHandshakeRun& aRun) = 0;
        // The peer of a run under way has sent bytes.
        virtual void OnHandshakeInput() {}

    protected:
        virtual ~IOwner() = default;
    };

    CHandshakeRun(ICmReactor* aReactor, IOwner& aOwner, IHandshakeMaker& aMaker, CCmRefPtrT<CCmTransportTcp> aTransport);
    // Cancels a run that is under way; no report follows.
    ~CHandshakeRun() override;

    // TRUE: over already, well or not. FALSE: under way, and the report follows. At the maker's time limit the run fails with
    // CM_FAILURE_TIMEOUT.
    CmBool Start();

    // The failure of a run that has ended, and its reason; CM_FAILURE_NONE: it succeeded.
    const CCmFailure& GetFailure() const { return m_Failure; }
    CmResult GetReason() const { return m_Reason; }
    // If the transport of a run that has ended well is opened before the run is deleted, it takes over the watch of the socket,
    // which saves calls.
    const CCmRefPtrT<CCmTransportTcp>& GetTransport() const { return m_pTransport; }

    CCmInetAddr GetPeerAddr() const;

    CmHandle GetHandle() const override;
    int OnInput(CmHandle aFd) override;
    int OnOutput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;

private:
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    CmBool GoOn_i();
    IHandshake::EStep Step_i();
    CmBool Wait_i(IHandshake::EStep aStep);
    int Ready_i();
    CmBool Over_i(const CCmFailure& aFailure);
    CmBool Failed_i(int aError);
    CCmFailure NotedFailure_i();
    void StopTimer_i();
    void Unwatch_i();

    const CHomeReactor m_pReactor;
    IOwner& m_Owner;
    IHandshakeMaker& m_Maker;
    CCmRefPtrT<CCmTransportTcp> m_pTransport;
    std::unique_ptr<IHandshake> m_pHandshake;  // null before the first and after the last
    CmDword m_dwStep = 0;
    CmBool m_bWatched = CM_FALSE;  // registered; afterwards another handler has the handle
    CmBool m_bTimer = CM_FALSE;
    CCmFailure m_Failure;
    CmResult m_Reason = CM_ERROR_NETWORK_CONNECT_ERROR;
};

}  // namespace talvo
