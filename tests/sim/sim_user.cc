#include "tests/sim/sim_user.h"

#include <algorithm>

#include "talvo/connection/protocol/connection_options.h"

namespace {

constexpr int64_t IDLE_LIMIT = 120000;
constexpr int64_t LINGER = 30 * SIM_SEC;
constexpr DWORD DEFAULT_INTERVAL = 15;

}  // namespace

CSimWorld::CSimWorld(CCmSimNetwork& aNetwork, DWORD aType)
    : m_Network(aNetwork),
      m_dwType(aType),
      m_bDatagrams(Is(CCmConnectionManager::CTYPE_UDP)),
      m_bPackage(Is(CCmConnectionManager::CTYPE_PDU_PACKAGE)),
      m_bKeepAlive(Is(CCmConnectionManager::CTYPE_PDU_KEEPALIVE)) {
    m_Network.SetObserver(this);
}

void CSimWorld::AddUser(ICmTransport& aTransport, BOOL aServer) {
    CCmInetAddr addr;
    aTransport.GetOption(aServer ? CM_OPT_TRANSPORT_PEER_ADDR : CM_OPT_TRANSPORT_LOCAL_ADDR, &addr);
    CSimLink& link = m_Links.try_emplace(addr.GetPort(), addr.GetPort()).first->second;
    m_Users.push_back(std::make_unique<CSimUser>(*this, link, aTransport, aServer, addr.GetPort()));
    m_Users.back()->Start();
}

void CSimWorld::OnSend(const CCmSimEnd& aEnd, const CCmMessageBlock& aData) {
    if (aData.GetChainedLength() > 0)
        TicksOf(aEnd).m_llSent = Tick();
}

void CSimWorld::OnStep() {
    ForAll([](CSimUser& aUser) { aUser.CheckStep(); });
}

CSimUser::CSimUser(CSimWorld& aWorld, CSimLink& aLink, ICmTransport& aTransport, BOOL aServer, WORD aPort)
    : CCmSimWildPeer(aWorld.m_Network, aTransport, aServer ? aLink.m_Down : aLink.m_Up, aServer ? aLink.m_Up : aLink.m_Down,
                     (aServer ? "server " : "client ") + std::to_string(aPort)),
      m_World(aWorld),
      m_Link(aLink),
      m_bServer(aServer) {
    CSimUser*& pPlace = aServer ? m_Link.m_pServer : m_Link.m_pClient;
    if (pPlace && !aWorld.m_bDatagrams)
        Fail("indicated twice");
    pPlace = this;
}

void CSimUser::Start() {
    if (m_World.m_bKeepAlive || (m_World.m_bPackage && !m_bServer))
        StartTimer_i(DEFAULT_INTERVAL);
    m_World.m_bWild&& m_World.Chance(90) ? Begin() : Open();
}

void CSimUser::OnOptionSet(DWORD aOption, DWORD aValue) {
    if (aOption == CS_OPT_KEEPALIVE_INTERVAL && m_llTimer >= 0)
        StartTimer_i(aValue);
    if (aOption == CM_OPT_TRANSPORT_PAUSE_READING && !aValue)
        m_llUnpaused = m_World.Tick();
    m_Link.m_bOdd = m_Link.m_bOdd || IsOdd();
}

void CSimUser::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmSimWildPeer::OnDisconnect(aReason, aTrptId);
    const CSimUser* pPeer = GetPeer_i();
    const BOOL bSilence = aReason == CM_ERROR_NETWORK_CONNECT_TIMEOUT && IsSilenceTheEnd_i();
    const BOOL bEnded = pPeer ? !pPeer->IsOpen() && aReason == m_Link.m_Reason : aReason == CM_OK;  // no user kept it
    const BOOL bLost =
        aReason == CM_ERROR_NETWORK_SOCKET_ERROR || (m_World.m_bDatagrams && aReason != CM_ERROR_NETWORK_CONNECT_TIMEOUT &&
                                                     (aReason == CM_OK || aReason >= 20000));  // of an earlier peer, perhaps
    if (!bSilence && !m_Link.m_bOdd && !IsOdd()) {
        if (!bEnded && (!bLost || m_Link.m_bTold))
            Fail("OnDisconnect " + std::to_string(aReason));
        if ((m_Link.m_bComplete || (m_World.Now() < m_Link.m_llLingers && !m_World.m_Network.HasJumped())) &&
            GetIncoming().IsMissing())
            Fail("the end came before a message");
    }
}

// Follows the timer of the connection, which fires first.
void CSimUser::StartTimer_i(DWORD aSeconds) {
    m_llTimer = m_World.Now();
    m_llInterval = aSeconds * SIM_SEC;
    m_World.After(m_llInterval, [this] { Fired_i(); });
}

void CSimUser::Fired_i() {
    const int64_t llPassed = m_World.Now() - m_llTimer;
    if (!IsOpen() || llPassed == 0 || llPassed % m_llInterval != 0 || m_World.m_Network.HasJumped())
        return;
    m_World.After(m_llInterval, [this] { Fired_i(); });
    if (IsPeerSilent_i())
        Fail("a silent peer is not given up");
    const int64_t llQuiet = m_World.Tick() - Ticks_i().m_llSent;
    if (m_World.m_bKeepAlive && llQuiet > m_llInterval / SIM_SEC && !m_Link.m_bOdd)
        Fail("no keep-alive, nothing sent for " + std::to_string(llQuiet));
}

BOOL CSimUser::IsPeerSilent_i() const {
    const int64_t llLast = std::max(Ticks_i().m_llReceived, m_llUnpaused);
    return m_World.m_bPackage && m_llTimer >= 0 && !IsPaused() && m_World.Tick() - llLast >= IDLE_LIMIT;
}

// Only a firing ends it.
BOOL CSimUser::IsSilenceTheEnd_i() const {
    return m_World.m_Network.HasJumped() || (IsPeerSilent_i() && (m_World.Now() - m_llTimer) % m_llInterval == 0);
}

// Bytes that the transport has not taken linger after an orderly end. After any other end they are lost, the reason among them,
// and a link that breaks loses more.
void CSimUser::OnEnding(CmResult aReason) {
    if (GetPeer_i() && !GetPeer_i()->IsOpen())
        return;
    const CCmSimPath& path = m_World.m_Network.GetLink().m_Up;
    const CCmSimEnd* pBelow = FindBelow();
    DWORD dwUnsent = 0;
    const DWORD dwTaken = pBelow ? pBelow->m_dwUnread : 0;
    GetTransport()->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwUnsent);
    const BOOL bWhole = !m_World.m_bDatagrams && path.m_Cut == 0;
    const BOOL bTellsReason = !m_World.Is(CCmConnectionManager::CTYPE_PDU_LENGTH);
    m_Link.m_bComplete = bWhole && dwUnsent == dwTaken;
    m_Link.m_llLingers = bWhole && aReason == CM_OK ? m_World.Now() + LINGER : 0;
    m_Link.m_bTold = m_Link.m_bComplete && bTellsReason && path.m_PartialSend == 0 && dwTaken < path.m_dwBuffer / 2;
    m_Link.m_Reason = bTellsReason ? aReason & 0xFFFF : CM_ERROR_NETWORK_SOCKET_ERROR;
}

// Over datagrams an end is noticed only where both ends are watched.
void CSimUser::CheckDebts() {
    if (!IsOpen())
        return;
    if (IsOwedSend())
        Fail("OnSend is owed");
    const BOOL bWatched = m_World.m_bPackage && m_World.m_bKeepAlive && !m_Link.m_bOdd;
    if (m_World.m_bDatagrams && !bWatched)
        return;
    if (!GetPeer_i() || !GetPeer_i()->IsOpen())
        Fail("OnDisconnect is owed");
    else if (GetIncoming().IsMissing())
        Fail("messages are owed");
}
