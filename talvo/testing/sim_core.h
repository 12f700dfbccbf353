// The state that the parts of a simulation share.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/base/name_resolver.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/testing/sim_link.h"
#include "talvo/testing/sim_observer.h"
#include "talvo/testing/sim_random.h"
#include "talvo/testing/sim_schedule.h"
#include "talvo/testing/sim_trace.h"

namespace talvo {

class CSimAcceptor;
class CSimTransport;

// The open ends, the listening acceptors, the links and the hosts. The network holds it, and its transports, which may outlive
// the network: then IsOver returns TRUE, and no event follows.
class CSimCore : public std::enable_shared_from_this<CSimCore>, public ICmNameResolver {
public:
    using CEndKey = std::pair<CCmInetAddr, CCmInetAddr>;  // own address, peer's
    using CListenKey = std::pair<CCmInetAddr, BOOL>;      // address, whether for datagrams

    CSimCore(uint64_t aSeed, std::ostream* aTrace);

    // TRUE after the network's end.
    BOOL IsOver() const { return m_bOver; }
    void End();

    CSimTransport* FindEnd(const CEndKey& aKey) const;
    // An acceptor on the address, or on its port with any address.
    CSimAcceptor* FindAcceptor(const CCmInetAddr& aAddr, BOOL aDatagrams) const;
    // A free port of that address; 0: none.
    WORD NewPort(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer);

    void SetLink(const CCmInetAddr* aAcceptor, const CCmSimLink& aLink);
    const CCmSimLink& GetLink(const CCmInetAddr& aAcceptor) const;
    // During a silence of aPath stores aRun for its end and returns TRUE.
    BOOL HoldWhileSilent(const CCmSimPath& aPath, std::function<void()> aRun);
    BOOL IsSilent(const CCmSimPath& aPath) const;
    int64_t DelayOf(const CCmSimPath& aPath);

    void SetHost(const std::string& aName, const CIpBytes& aIp) { m_Hosts[aName] = aIp; }
    CmResult ResolveFromCache(const CCmString& aName, CIpBytes& aIp) override;

    const uint64_t m_ullSeed;
    CSimRandom m_Random;
    CSimSchedule m_Schedule;
    CSimTrace m_Trace;
    ICmSimObserver* m_pObserver = nullptr;            // not owned
    std::map<CEndKey, CSimTransport*> m_Ends;         // not owned
    std::map<CListenKey, CSimAcceptor*> m_Acceptors;  // not owned

private:
    void RunHeld_i();

    BOOL m_bOver = FALSE;
    WORD m_wLastPort = 1024;
    CCmSimLink m_Link;
    std::map<CCmInetAddr, CCmSimLink> m_Links;
    std::vector<std::function<void()>> m_Held;
    std::map<std::string, CIpBytes> m_Hosts;
};

}  // namespace talvo
