// One connect of one socket to one address.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/event/home_reactor.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/tcp/handshake_run.h"

namespace talvo {

// Makes a TransportType over a socket, connects it and runs the handshakes of its maker, if there is one. One use, in the
// thread of its reactor.
template <class TransportType>
class CConnectAttemptT final : public ACmEventHandler, private ICmTimerHandler, private CHandshakeRun::IOwner {
public:
    class IOwner {
    public:
        // The one report of an attempt in progress. aError 0: connected; else the system's error or EPROTO, already traced. May
        // delete aAttempt.
        virtual void OnAttemptDone(CConnectAttemptT& aAttempt, int aError) = 0;

    protected:
        virtual ~IOwner() = default;
    };

    // aMaker: outlives the attempt, its transports are of TransportType; null: none.
    CConnectAttemptT(ICmReactor* aReactor, IOwner& aOwner, IHandshakeMaker* aMaker)
        : m_pReactor(aReactor), m_Owner(aOwner), m_pMaker(aMaker) {}
    ~CConnectAttemptT() override;

    // 0: connected at once. 1: in progress. -1: failed at once, the error in errno. A report follows only for 1.
    int Start(const CCmInetAddr& aAddr, const CCmInetAddr& aAddrLocal, const CSocketSettings& aSockets);

    // The transport, connected after a success; the attempt no longer holds it.
    CCmRefPtrT<TransportType> TakeTransport();

    // TRUE: connected, and shaking hands.
    CmBool IsShakingHands() const { return m_pRun != nullptr; }

    // The failure, immediate or later, and its reason.
    const CCmFailure& GetFailure() const { return m_Failure; }
    CmResult GetReason() const { return m_pRun ? m_pRun->GetReason() : CM_ERROR_NETWORK_CONNECT_ERROR; }

    CmHandle GetHandle() const override;
    int OnOutput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;

private:
    int Connect_i(const CCmInetAddr& aAddrLocal, const CSocketSettings& aSockets);
    int ConnectSocket_i();
    int Connected_i();
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // time to try a path again
    int Failed_i(const char* aVerb, const CCmInetAddr& aAddr);
    int Finished_i(int aError);
    int ShakeHands_i();
    int HandshakeOver_i();
    void OnHandshakeDone(CHandshakeRun& aRun) override;
    void Unregister_i();

    const CHomeReactor m_pReactor;
    IOwner& m_Owner;
    IHandshakeMaker* const m_pMaker;  // not owned; the owner's
    CCmInetAddr m_AddrPeer;
    CCmRefPtrT<TransportType> m_pTransport;
    std::unique_ptr<CHandshakeRun> m_pRun;  // when connected
    CCmFailure m_Failure;
};

extern template class CConnectAttemptT<CCmTransportTcp>;

}  // namespace talvo
