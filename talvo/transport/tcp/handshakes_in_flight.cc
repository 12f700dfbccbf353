#include "talvo/transport/tcp/handshakes_in_flight.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr int64_t PATIENCE_USEC = 1000000;

}  // namespace

CHandshakesInFlight::CNode::CNode(CHandshakesInFlight& aOwner, IHandshakeMaker& aMaker, CCmRefPtrT<CCmTransportTcp> aTransport)
    : m_Owner(aOwner),
      m_llInputUsec(CCmClock::GetTimeOfDayUsec()),
      m_Run(aOwner.m_pReactor, *this, aMaker, std::move(aTransport)) {}

BOOL CHandshakesInFlight::Begin(CCmRefPtrT<CCmTransportTcp> aTransport, IHandshakeMaker& aMaker) {
    if (!WithMemory([&] { m_Runs.emplace_back(*this, aMaker, std::move(aTransport)); }))
        return FALSE;
    CNode& node = m_Runs.back();
    node.m_Place = std::prev(m_Runs.end());
    if (node.m_Run.Start())
        Done_i(node);  // last: the owner may be gone
    return TRUE;
}

CCmTimeValue CHandshakesInFlight::GetPatience() const {
    const int64_t llUntil = m_Runs.front().m_llInputUsec + PATIENCE_USEC;
    return CCmTimeValue::FromUsec(std::max<int64_t>(0, llUntil - CCmClock::GetTimeOfDayUsec()));
}

CCmInetAddr CHandshakesInFlight::CloseMostSilent() {
    const CCmInetAddr addr = m_Runs.front().m_Run.GetPeerAddr();
    m_Runs.pop_front();
    return addr;
}

void CHandshakesInFlight::Move_i(CNode& aNode) {
    aNode.m_llInputUsec = CCmClock::GetTimeOfDayUsec();
    m_Runs.splice(m_Runs.end(), m_Runs, aNode.m_Place);
}

// The run ends behind the report, which may open the transport.
void CHandshakesInFlight::Done_i(CNode& aNode) {
    std::list<CNode> over;
    over.splice(over.end(), m_Runs, aNode.m_Place);
    m_Owner.OnShaken(aNode.m_Run.GetTransport(), aNode.m_Run.GetFailure());  // last: the owner may delete this object
}

}  // namespace talvo
