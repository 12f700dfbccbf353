#include "tests/sim/sim_user.h"

#include <algorithm>

#include "talvo/connection/protocol/connection_options.h"

namespace {

constexpr DWORD MIN_BUFFER = 5;   // for a keep-alive
constexpr DWORD MIN_MESSAGE = 4;  // holds a number
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
    m_Users.back()->Begin();
}

void CSimWorld::OnSend(const CCmSimEnd& aEnd, const std::string& aBytes) {
    if (!aBytes.empty())
        TicksOf(aEnd).m_llSent = Tick();
}

void CSimWorld::OnStep() {
    ForAll([](CSimUser& aUser) { aUser.CheckStep(); });
}

CSimUser::CSimUser(CSimWorld& aWorld, CSimLink& aLink, ICmTransport& aTransport, BOOL aServer, WORD aPort)
    : CCmSimPeer(aWorld.m_Network, aTransport, aServer ? aLink.m_Down : aLink.m_Up, aServer ? aLink.m_Up : aLink.m_Down,
                 (aServer ? "server " : "client ") + std::to_string(aPort)),
      m_World(aWorld),
      m_Link(aLink),
      m_bServer(aServer) {
    CSimUser*& pPlace = aServer ? m_Link.m_pServer : m_Link.m_pClient;
    if (pPlace && !aWorld.m_bDatagrams)
        Fail("indicated twice");
    pPlace = this;
}

void CSimUser::Begin() {
    Open();
    if (m_World.m_bKeepAlive || (m_World.m_bPackage && !m_bServer))
        StartTimer_i(DEFAULT_INTERVAL);
    m_bShy = m_World.Chance(10);
    if (m_bShy)
        return;
    Feel_i(30);
    Live_i();
}

// Does one thing, and the next one after a while.
void CSimUser::Live_i() {
    m_World.After(m_World.RandomTime(2 * SIM_SEC), [this] {
        if (m_World.m_bWild && IsOpen()) {
            Act_i();
            Live_i();
        }
    });
}

// Perhaps does a thing or two, from inside an upcall.
void CSimUser::Feel_i(uint64_t aPercent) {
    if (!m_World.m_bWild || m_bShy || !m_World.Chance(aPercent))
        return;
    for (DWORD i = 1 + m_World.Below(3); i > 0; --i)
        Act_i();
}

void CSimUser::Act_i() {
    if (m_nDepth >= 3)
        return;
    ++m_nDepth;
    const DWORD dwDeed = m_World.Below(100);
    if (dwDeed < 40)
        SendMaybe_i(m_World.Below(m_World.Chance(10) ? 70000 : 2000));
    else if (dwDeed < 75)
        SendMany_i(m_World.Chance(60));
    else if (dwDeed < 84)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, !m_bPaused);
    else if (dwDeed < 95)
        ChangeOption_i();
    else if (dwDeed < 98)
        EndNow(m_World.Chance(30) ? CM_OK : static_cast<CmResult>(20006 + m_World.Below(7)), m_World.Chance(30));
    --m_nDepth;
}

void CSimUser::ChangeOption_i() {
    const BOOL bOdd = m_World.Chance(4);  // so small a limit that it may end the connection, whatever the reason
    m_Link.m_bOdd = m_Link.m_bOdd || bOdd;
    const DWORD dwWhich = m_World.Below(3);
    if (dwWhich == 0)
        Set_i(CS_OPT_MAX_BUFF_LEN, bOdd ? m_World.Below(10) : MIN_BUFFER + m_World.Below(200000));
    else if (dwWhich == 1)
        Set_i(CS_OPT_MAX_MESSAGE_LEN, bOdd ? m_World.Below(2000) : 70000 + m_World.Below(1 << 20));
    else
        Set_i(CS_OPT_KEEPALIVE_INTERVAL, m_World.Below(40));
}

void CSimUser::Set_i(DWORD aOption, DWORD aValue) {
    if (!IsOpen() || GetTransport()->SetOption(aOption, &aValue) != CM_OK)
        return;
    if (aOption == CS_OPT_KEEPALIVE_INTERVAL && m_llTimer >= 0)
        StartTimer_i(aValue);
    if (aOption != CM_OPT_TRANSPORT_PAUSE_READING)
        return;
    if (m_bPaused)
        m_llUnpaused = m_World.Tick();
    m_bPaused = aValue != 0;
}

void CSimUser::SendMaybe_i(DWORD aLength) {
    if (IsOpen() && (!IsOwedSend() || m_World.Chance(20)))
        Send(m_World.m_bDatagrams ? std::max(aLength, MIN_MESSAGE) : aLength);
}

void CSimUser::SendMany_i(BOOL aCorked) {
    if (aCorked)
        Set_i(CM_OPT_TRANSPORT_CORK, TRUE);
    for (DWORD i = m_World.Below(100); i > 0 && IsOpen() && !IsOwedSend(); --i)
        SendMaybe_i(m_World.Below(m_World.Chance(5) ? 5000 : 200));
    if (aCorked)
        Set_i(CM_OPT_TRANSPORT_CORK, FALSE);
}

void CSimUser::OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    CCmSimPeer::OnReceive(aData, aTrptId, aPara);
    Feel_i(10);
}

void CSimUser::OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) {
    CCmSimPeer::OnSend(aTrptId, aPara);
    Feel_i(40);
}

void CSimUser::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmSimPeer::OnDisconnect(aReason, aTrptId);
    const CSimUser* pPeer = GetPeer_i();
    const BOOL bSilence = aReason == CM_ERROR_NETWORK_CONNECT_TIMEOUT && IsSilenceTheEnd_i();
    const BOOL bEnded = pPeer ? !pPeer->IsOpen() && aReason == m_Link.m_Reason : aReason == CM_OK;  // nobody kept it
    const BOOL bLost =
        aReason == CM_ERROR_NETWORK_SOCKET_ERROR || (m_World.m_bDatagrams && aReason != CM_ERROR_NETWORK_CONNECT_TIMEOUT &&
                                                     (aReason == CM_OK || aReason >= 20000));  // of an earlier peer, perhaps
    if (!bSilence && !m_Link.m_bOdd) {
        if (!bEnded && (!bLost || m_Link.m_bTold))
            Fail("OnDisconnect " + std::to_string(aReason));
        if ((m_Link.m_bComplete || (m_World.Now() < m_Link.m_llLingers && !m_World.m_bJumped)) && GetIncoming().IsMissing())
            Fail("the end came before a message");
    }
    Feel_i(50);
    if (m_World.Chance(50))
        Release();
}

// Follows the timer of the connection, which fires first.
void CSimUser::StartTimer_i(DWORD aSeconds) {
    m_llTimer = m_World.Now();
    m_llInterval = aSeconds * SIM_SEC;
    m_World.After(m_llInterval, [this] { Fired_i(); });
}

void CSimUser::Fired_i() {
    const int64_t llPassed = m_World.Now() - m_llTimer;
    if (!IsOpen() || llPassed == 0 || llPassed % m_llInterval != 0 || m_World.m_bJumped)
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
    return m_World.m_bPackage && m_llTimer >= 0 && !m_bPaused && m_World.Tick() - llLast >= IDLE_LIMIT;
}

// Only a firing ends it.
BOOL CSimUser::IsSilenceTheEnd_i() const {
    return m_World.m_bJumped || (IsPeerSilent_i() && (m_World.Now() - m_llTimer) % m_llInterval == 0);
}

// What the transport has not taken by now lingers after an orderly end; after any other it is lost, the reason among it, and a
// link that breaks loses more.
void CSimUser::NoteEnd_i(CmResult aReason) {
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

void CSimUser::EndNow(CmResult aReason, BOOL aRelease) {
    if (IsOpen())
        NoteEnd_i(aRelease ? CM_OK : aReason);
    aRelease ? Release() : End(aReason);
}

void CSimUser::Settle() {
    if (m_bPaused)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
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
