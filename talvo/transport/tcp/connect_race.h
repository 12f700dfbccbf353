// The attempts at the addresses of one name.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/tcp/connect_attempt.h"

namespace talvo {

// Tries addresses in turn. The next one starts when one before it has failed, or when none has connected within 250 ms.
// Handshakes are a part of an attempt, and while one runs only its failure starts the next address; one that fails with a
// reason of its own, see IHandshake, ends the race, and all other attempts are closed. The first attempt to succeed wins and
// the others are closed. More addresses may join a race, also one that has failed without such a reason. One race at a time, in
// the thread of its reactor.
template <class TransportType>
class CConnectRaceT final : private ICmTimerHandler, private CConnectAttemptT<TransportType>::IOwner {
public:
    class IUser {
    public:
        // The one report of a race in progress: the connected transport, or null if it has failed. May delete the race.
        virtual void OnRaceDone(CCmRefPtrT<TransportType> aTransport) = 0;

    protected:
        virtual ~IUser() = default;
    };

    // aMaker: of the attempts; null: none.
    CConnectRaceT(ICmReactor* aReactor, IUser& aUser, std::shared_ptr<IHandshakeMaker> aMaker)
        : m_pReactor(aReactor), m_User(aUser), m_pMaker(std::move(aMaker)) {}
    ~CConnectRaceT() override { Stop(); }
    CConnectRaceT(const CConnectRaceT&) = delete;
    CConnectRaceT& operator=(const CConnectRaceT&) = delete;

    // Starts the race, or continues it with these addresses after those that were tried. 0: aTransport (out) is connected. 1:
    // in progress. -1: no attempt is in progress, and the race has failed. A report follows only for 1. Throws std::bad_alloc;
    // Stop it then.
    int Run(std::vector<CCmInetAddr> aAddrs, const CCmInetAddr& aAddrLocal, const CSocketSettings& aSockets,
            CCmRefPtrT<TransportType>& aTransport);

    // The failure of the last address that failed. One that could not even be tried from this machine does not replace
    // another's failure.
    const CCmFailure& GetFailure() const { return m_Failure; }

    // The reason of the handshake that has ended the race; CM_OK: none has.
    CmResult GetRefusal() const { return m_Refusal; }

    // Ends all attempts and forgets the addresses; no report follows.
    void Stop();

private:
    using CAttempt = CConnectAttemptT<TransportType>;

    int StartNext_i(CCmRefPtrT<TransportType>& aTransport);
    void GoOn_i();
    void ArmTimer_i();
    CmBool IsOver_i(const CAttempt& aFailed);
    void Note_i(const CCmFailure& aFailure);
    void Done_i(CCmRefPtrT<TransportType> aTransport);

    void OnAttemptDone(CAttempt& aAttempt, int aError) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    const CHomeReactor m_pReactor;
    IUser& m_User;
    const std::shared_ptr<IHandshakeMaker> m_pMaker;
    CCmInetAddr m_AddrLocal;
    CSocketSettings m_Sockets;
    std::vector<CCmInetAddr> m_Addrs;
    size_t m_stNext = 0;                                // the first address not yet tried
    int64_t m_llLastUsec = 0;                           // when the last attempt started
    std::vector<std::unique_ptr<CAttempt>> m_Attempts;  // in progress
    CCmFailure m_Failure;
    CmResult m_Refusal = CM_OK;
};

extern template class TALVO_API CConnectRaceT<CCmTransportTcp>;

}  // namespace talvo
