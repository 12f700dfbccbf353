// A network in memory: an application's own sinks communicate over simulated links, in simulated time, in one thread, from one
// seed.
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

// While one is in scope, the calling thread is the library's main and network thread, and the library's clock is the simulated
// one. All objects of CCmConnectionManager, HTTP channels too, use simulated links instead of sockets:
//
//    CCmSimNetwork network(seed);
//    CCmSimLink link;
//    link.m_Up.m_Loss = 0.1;
//    network.SetLink(link);
//    ... CCmConnectionManager::Instance()->CreateConnectionServer, StartListen, CreateConnectionClient, AsycConnect ...
//    network.RunFor(CCmTimeValue(60));
//
// Simulated time does not run while code runs; it advances directly to the next event. The whole run follows from the seed, if
// the application takes its random numbers from Random and starts no threads. The traces of two runs are then equal.
//
// RunFor and RunUntil run the loop. So does RunEventLoop, which returns CM_ERROR_TIMEOUT when no event is left.
//
// Addresses belong to no interface: an acceptor may listen on any. A connector without a local address connects from 127.0.0.1.
// SetHost defines a host name.
//
// Simulated transports keep the contract of those over sockets: the same upcalls, results, options and orderly ends. The
// differences: CM_OPT_TRANSPORT_FD is CM_ERROR_INVALID_ARG; TOS and KEEPALIVE are accepted without effect; a silent peer of a
// datagram acceptor is never dropped.
//
// One at a time, in one thread; no other thread of the library runs meanwhile. Objects of the library may outlive it and are
// then closed. Unlike the library, this class throws std::bad_alloc when memory runs out.
class CCmSimNetwork {
public:
    // aTrace (may be null, not owned) gets the trace: one line for each event, with its simulated time.
    explicit CCmSimNetwork(uint64_t aSeed, std::ostream* aTrace = nullptr);
    // Ends the simulated thread and restores the library's clock, threads and sockets. Before that, connections that linger
    // after Disconnect(CM_OK) finish in simulated time. Not from inside a callback.
    ~CCmSimNetwork();
    CCmSimNetwork(const CCmSimNetwork&) = delete;
    CCmSimNetwork& operator=(const CCmSimNetwork&) = delete;

    // CM_OK: the simulation is set up. CM_ERROR_ALREADY_INITIALIZED: the library has a main or network thread already, or
    // another simulation exists. This one has then changed no state and runs no events. GetFailures has a line about it, too.
    CmResult GetStatus() const;
    uint64_t GetSeed() const;  // the seed of this run

    // Sets the link of all connections, the open ones included; or of those from connectors to aAcceptor, which a SetLink
    // without an address then no longer changes. Ends a silence that is not in aLink.
    void SetLink(const CCmSimLink& aLink);
    void SetLink(const CCmInetAddr& aAcceptor, const CCmSimLink& aLink);
    // The same path in both directions of all connections.
    void SetPath(const CCmSimPath& aPath) { SetLink({aPath, aPath}); }
    // The link of those connections; s_InetAddrAny: of all without a link of their own.
    const CCmSimLink& GetLink(const CCmInetAddr& aAcceptor = CCmInetAddr::s_InetAddrAny) const;

    // From now on that host name resolves to aAddr, as if its name server had answered. A name without an address fails with
    // CM_ERROR_NETWORK_DNS_FAILURE.
    void SetHost(const std::string& aName, const CCmInetAddr& aAddr);

    // Simulated time since the start.
    CCmTimeValue Now() const;
    // Runs all events due until then. From inside a callback it fails the run and returns.
    void RunFor(const CCmTimeValue& aTime);
    // Runs until aIsDone, called after each step, returns TRUE: TRUE. FALSE: aLimit has passed before, or the call came from
    // inside a callback.
    CmBool RunUntil(const std::function<CmBool()>& aIsDone, const CCmTimeValue& aLimit);
    // Calls aRun after that much simulated time, from the loop.
    void After(const CCmTimeValue& aDelay, std::function<void()> aRun);
    // Time advances without the loop, as on a machine after a suspend: overdue timers fire late, in the next run.
    void Jump(const CCmTimeValue& aTime);
    CmBool HasJumped() const { return m_bJumped; }  // Jump was called

    // Random numbers of the simulation: 0 to aBound - 1, aBound not 0; TRUE in that share of calls.
    uint64_t Random(uint64_t aBound);
    CmBool Chance(double aShare);
    // A time from 0 to just below aBound, which is positive.
    CCmTimeValue RandomTime(const CCmTimeValue& aBound);
    // A path with random faults, each between none and much, for streams or datagrams. Some paths have no faults.
    CCmSimPath RandomPath(CmBool aDatagrams);

    // The same for streams, which it breaks at times: cuts, half-open ends, silence, connects that take long or wait in the
    // listener's backlog.
    CCmSimPath RandomStorm();

    // Adds a line of the application to the trace.
    void Note(const std::string& aText);
    // A number that is equal for two runs if and only if their traces are (except for a coincidence in 2^64). Needs no aTrace.
    uint64_t GetTraceDigest() const;

    // Reports a violated property: adds a line to the trace, and one to the failures.
    void Fail(const std::string& aText);
    const std::vector<std::string>& GetFailures() const;  // in order

    // The open ends of connections: their number, and one of them, valid until it closes. Null: there is no such end.
    size_t CountEnds() const;
    const CCmSimEnd* FindEnd(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) const;

    // Not owned; null: none. It must live while it is set.
    void SetObserver(ICmSimObserver* aObserver);

private:
    const std::shared_ptr<talvo::CSimCore> m_pCore;  // also held by the simulated transports
    const std::unique_ptr<talvo::CSimSetup> m_pSetup;
    CmBool m_bJumped = CM_FALSE;
};
