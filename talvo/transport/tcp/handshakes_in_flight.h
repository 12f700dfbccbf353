// The handshakes of an acceptor.
#pragma once

#include <list>

#include "talvo/transport/tcp/handshake_run.h"

namespace talvo {

// Runs the handshakes of any number of connections, and finds the most silent peer. Each operation has the same cost with any
// number of them. In the thread of the reactor.
class CHandshakesInFlight {
public:
    class IOwner {
    public:
        // A handshake has ended, well if aFailure is none. Not for one that the owner has ended. May delete aHandshakes.
        virtual void OnShaken(CCmRefPtrT<CCmTransportTcp> aTransport, const CCmFailure& aFailure) = 0;

    protected:
        virtual ~IOwner() = default;
    };

    CHandshakesInFlight(ICmReactor* aReactor, IOwner& aOwner) : m_pReactor(aReactor), m_Owner(aOwner) {}
    CHandshakesInFlight(const CHandshakesInFlight&) = delete;
    CHandshakesInFlight& operator=(const CHandshakesInFlight&) = delete;

    // aMaker outlives the handshake. OnShaken may come inside. FALSE: memory ran out, and the connection is closed.
    CmBool Begin(CCmRefPtrT<CCmTransportTcp> aTransport, IHandshakeMaker& aMaker);
    size_t GetCount() const { return m_Runs.size(); }

    // The time until the peer that has been silent longest has sent nothing for a second; zero: it has. There is one.
    CCmTimeValue GetPatience() const;
    // Closes the connection of that peer, and returns its address. There is one.
    CCmInetAddr CloseMostSilent();
    // Closes all; no report follows.
    void CloseAll() { m_Runs.clear(); }

private:
    // A list's node: its own place is known, so that it can move or end without a search.
    struct CNode final : CHandshakeRun::IOwner {
        CNode(CHandshakesInFlight& aOwner, IHandshakeMaker& aMaker, CCmRefPtrT<CCmTransportTcp> aTransport);
        void OnHandshakeDone(CHandshakeRun&) override { m_Owner.Done_i(*this); }
        void OnHandshakeInput() override { m_Owner.Move_i(*this); }

        CHandshakesInFlight& m_Owner;
        int64_t m_llInputUsec;  // when the peer sent bytes last; at first when it connected
        std::list<CNode>::iterator m_Place;
        CHandshakeRun m_Run;
    };

    void Move_i(CNode& aNode);
    void Done_i(CNode& aNode);

    const CHomeReactor m_pReactor;
    IOwner& m_Owner;
    std::list<CNode> m_Runs;  // the most silent peer first
};

}  // namespace talvo
