// A network in memory: an application's own sinks talk over simulated links, in simulated time, in one thread, from one seed.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "talvo/base/inet_addr.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"
#include "talvo/testing/sim_link.h"
#include "talvo/testing/sim_observer.h"

namespace talvo {
class CSimCore;
class CSimSetup;
}  // namespace talvo

// While one is in scope, the calling thread is the library's main and network thread, the library's clock is the simulated one,
// and everything that CCmConnectionManager makes, HTTP channels too, runs over simulated links instead of sockets:
//
//    CCmSimNetwork network(seed);
//    CCmSimLink link;
//    link.m_Up.m_Loss = 0.1;
//    network.SetLink(link);
//    ... CCmConnectionManager::Instance()->CreateConnectionServer, StartListen, CreateConnectionClient, AsycConnect ...
//    network.RunFor(CCmTimeValue(60));
//
// Simulated time stands still while code runs and goes straight to the next event. The whole run follows from the seed,
// provided that the application asks Random for its chances and starts no threads. The trace of two runs is then equal.
//
// RunFor and RunUntil run the loop; so does RunEventLoop, which returns CM_ERROR_TIMEOUT when nothing is left that could
// happen.
//
// Addresses belong to no interface: any one can be listened on. A connector without a local address connects from 127.0.0.1. A
// host name is known when SetHost has given it.
//
// Simulated transports keep the contract of those over sockets: the same upcalls, results, options and orderly ends. They
// differ in this: CM_OPT_TRANSPORT_FD is CM_ERROR_INVALID_ARG; TOS and KEEPALIVE are taken and have no effect; a silent peer
// of a datagram acceptor is never dropped.
//
// One at a time, in one thread; no other thread of the library runs meanwhile. Objects of the library may outlive it and are
// closed then. Unlike the library, this one throws std::bad_alloc when memory runs out.
class CCmSimNetwork {
public:
    // aTrace (may be null, not owned) receives the trace: one line for each thing that happens, with its simulated time.
    explicit CCmSimNetwork(uint64_t aSeed, std::ostream* aTrace = nullptr);
    // Ends the simulated thread and gives the library its clock, its threads and its sockets back. Connections that linger
    // after Disconnect(CM_OK) run on before, in simulated time. Not from inside a callback.
    ~CCmSimNetwork();
    CCmSimNetwork(const CCmSimNetwork&) = delete;
    CCmSimNetwork& operator=(const CCmSimNetwork&) = delete;

    // CM_OK: the simulation stands. CM_ERROR_ALREADY_INITIALIZED: the library has a main or network thread already, or another
    // simulation stands; nothing was changed, and nothing will happen here. GetFailures has that as a line, too.
    CmResult GetStatus() const;
    uint64_t GetSeed() const;

    // The link of all connections from now on, those that are open included; or of those that connectors make to aAcceptor,
    // which SetLink without an address no longer changes. Ends a silence that aLink does not have.
    void SetLink(const CCmSimLink& aLink);
    void SetLink(const CCmInetAddr& aAcceptor, const CCmSimLink& aLink);
    // The link of those connections; s_InetAddrAny: of all that have none of their own.
    const CCmSimLink& GetLink(const CCmInetAddr& aAcceptor = CCmInetAddr::s_InetAddrAny) const;

    // From now on names of that host stand for aAddr, as if its name server had answered. A name without an address fails with
    // CM_ERROR_NETWORK_DNS_FAILURE.
    void SetHost(const std::string& aName, const CCmInetAddr& aAddr);

    // Simulated time since the beginning.
    CCmTimeValue Now() const;
    // Runs everything that is due until then. From inside a callback it fails the run and returns.
    void RunFor(const CCmTimeValue& aTime);
    // Runs until aIsDone returns TRUE, asked after each step: TRUE. FALSE: aLimit has passed before, or it was called from
    // inside a callback.
    BOOL RunUntil(const std::function<BOOL()>& aIsDone, const CCmTimeValue& aLimit);
    // Calls aRun after so much simulated time, from the loop.
    void After(const CCmTimeValue& aDelay, std::function<void()> aRun);
    // Time goes on without the loop, as on a machine that slept: overdue timers fire late, with the next run.
    void Jump(const CCmTimeValue& aTime);

    // The chances of the simulation. 0 to aBound - 1, aBound not 0; TRUE in that share of calls.
    uint64_t Random(uint64_t aBound);
    BOOL Chance(double aShare);

    // A line of the application's in the trace.
    void Note(const std::string& aText);
    // A number that is equal for two runs exactly when their traces are (but for a coincidence in 2^64). Needs no aTrace.
    uint64_t GetTraceDigest() const;

    // A promise was broken: a line in the trace, and one of the failures.
    void Fail(const std::string& aText);
    const std::vector<std::string>& GetFailures() const;

    // The open ends of connections: how many there are, and one of them, valid until it closes. Null: there is no such end.
    size_t CountEnds() const;
    const CCmSimEnd* FindEnd(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) const;

    // Not owned; null: none. It must live while it is set.
    void SetObserver(ICmSimObserver* aObserver);

private:
    const std::shared_ptr<talvo::CSimCore> m_pCore;  // also held by the simulated transports
    const std::unique_ptr<talvo::CSimSetup> m_pSetup;
};
