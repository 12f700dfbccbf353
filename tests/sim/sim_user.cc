#include "tests/sim/sim_user.h"

#include <algorithm>

#include "talvo/connection/protocol/connection_options.h"

namespace {

constexpr DWORD MIN_BUFFER = 5;  // for a keep-alive
constexpr int64_t IDLE_LIMIT = 120000;
constexpr int64_t LINGER = 30 * SIM_SEC;
constexpr DWORD DEFAULT_INTERVAL = 15;

// What message aNumber looks like. The first bytes are its number.
std::string TextOf(DWORD aNumber, DWORD aLength) {
    std::string strText(aLength, '\0');
    for (DWORD i = 0; i < aLength; ++i)
        strText[i] = static_cast<char>(i < 4 ? aNumber >> (8 * i) : (aNumber * 2654435761u + i * 31) >> 7);
    return strText;
}

CCmInetAddr AddrOf(ICmTransport& aConn, DWORD aOption) {
    CCmInetAddr addr;
    aConn.GetOption(aOption, &addr);
    return addr;
}

}  // namespace

CSimUser::CSimUser(CSimWorld& aWorld, ICmTransport& aConn, BOOL aServer)
    : m_World(aWorld),
      m_Network(aWorld.m_Network),
      m_pConn(&aConn),
      m_bServer(aServer),
      m_AddrOwn(AddrOf(aConn, CM_OPT_TRANSPORT_LOCAL_ADDR)),
      m_AddrPeer(AddrOf(aConn, CM_OPT_TRANSPORT_PEER_ADDR)),
      m_wPort((aServer ? m_AddrPeer : m_AddrOwn).GetPort()),
      m_Link(aWorld.m_Links[m_wPort]) {
    m_Network.Note(aServer ? "server up" : "client up", m_wPort);
    CSimUser*& pPlace = aServer ? m_Link.m_pServer : m_Link.m_pClient;
    if (pPlace && !aWorld.m_Kind.m_bDatagrams)
        Fail_i("indicated twice");
    pPlace = this;
    if (aConn.OpenWithSink(this) != CM_OK)
        Fail_i("OpenWithSink");
    if (aWorld.m_Kind.m_bKeepAlive || (aWorld.m_Kind.m_bPackage && !aServer))
        StartTimer_i(DEFAULT_INTERVAL);
    m_bShy = m_Network.Chance(10);
    if (m_bShy)
        return;
    Feel_i(30);
    Live();
}

void CSimUser::Fail_i(const std::string& aText) {
    m_Network.Fail(std::string(m_World.m_Kind.m_szName) + (m_bServer ? " server " : " client ") + std::to_string(m_wPort) +
                   ": " + aText);
}

void CSimUser::Live() {
    m_Network.After(m_Network.RandomTime(2 * SIM_SEC), [this] {
        if (m_World.m_bWild && m_bOpen) {
            Act_i();
            Live();
        }
    });
}

// Perhaps does a thing or two, from inside an upcall.
void CSimUser::Feel_i(uint64_t aPercent) {
    if (!m_World.m_bWild || m_bShy || !m_Network.Chance(aPercent))
        return;
    for (uint64_t i = 1 + m_Network.Random(3); i > 0; --i)
        Act_i();
}

void CSimUser::Act_i() {
    if (m_nDepth >= 3)
        return;
    ++m_nDepth;
    const uint64_t ullDeed = m_Network.Random(100);
    if (ullDeed < 40)
        Send_i(static_cast<DWORD>(m_Network.Random(m_Network.Chance(10) ? 70000 : 2000)));
    else if (ullDeed < 75)
        SendMany_i(m_Network.Chance(60));
    else if (ullDeed < 84)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, !m_bPaused);
    else if (ullDeed < 95)
        ChangeOption_i();
    else if (ullDeed < 98)
        End(m_Network.Chance(30) ? CM_OK : static_cast<CmResult>(20006 + m_Network.Random(7)), m_Network.Chance(30));
    --m_nDepth;
}

void CSimUser::ChangeOption_i() {
    const BOOL bOdd = m_Network.Chance(4);  // so small a limit that it may end the connection, whatever the reason
    m_Link.m_bOdd = m_Link.m_bOdd || bOdd;
    const uint64_t ullWhich = m_Network.Random(3);
    if (ullWhich == 0)
        Set_i(CS_OPT_MAX_BUFF_LEN, static_cast<DWORD>(bOdd ? m_Network.Random(10) : MIN_BUFFER + m_Network.Random(200000)));
    else if (ullWhich == 1)
        Set_i(CS_OPT_MAX_MESSAGE_LEN, static_cast<DWORD>(bOdd ? m_Network.Random(2000) : 70000 + m_Network.Random(1 << 20)));
    else
        Set_i(CS_OPT_KEEPALIVE_INTERVAL, static_cast<DWORD>(m_Network.Random(40)));
}

void CSimUser::Set_i(DWORD aOption, DWORD aValue) {
    if (!m_bOpen)
        return;
    const CmResult rv = m_pConn->SetOption(aOption, &aValue);
    m_Network.Note("option", aOption, static_cast<uint64_t>(rv));
    if (rv != CM_OK)
        return;
    if (aOption == CS_OPT_KEEPALIVE_INTERVAL && m_llTimer >= 0)
        StartTimer_i(aValue);
    if (aOption != CM_OPT_TRANSPORT_PAUSE_READING)
        return;
    if (m_bPaused)
        m_llUnpaused = m_Network.Tick();
    m_bPaused = aValue != 0;
}

void CSimUser::SendMany_i(BOOL aCorked) {
    if (aCorked)
        Set_i(CM_OPT_TRANSPORT_CORK, TRUE);
    for (uint64_t i = m_Network.Random(100); i > 0 && m_bOpen && !m_bOwedOnSend; --i)
        Send_i(static_cast<DWORD>(m_Network.Random(m_Network.Chance(5) ? 5000 : 200)));
    if (aCorked)
        Set_i(CM_OPT_TRANSPORT_CORK, FALSE);
}

// A chain of blocks some of which own their storage, as a user has it.
void CSimUser::Send_i(DWORD aLength) {
    if (!m_bOpen || (m_bOwedOnSend && m_Network.Chance(80)))
        return;
    const DWORD dwLength = m_World.m_Kind.m_bDatagrams ? std::max(aLength, MIN_LENGTH) : aLength;
    const DWORD dwNumber = ++m_World.m_dwMessages;
    const std::string strText = TextOf(dwNumber, dwLength);
    const auto dwFirst = static_cast<DWORD>(m_Network.Random(dwLength + 1));
    CCmMessageBlock first(dwFirst, strText.data(), CCmMessageBlock::DONT_DELETE, dwFirst);
    CCmMessageBlock rest(dwLength - dwFirst + 100);
    rest.Write(strText.data() + dwFirst, dwLength - dwFirst);
    first.Append(&rest);

    DWORD dwMax = 0xFFFFFFFF;
    m_pConn->GetOption(CM_OPT_TRANSPORT_MAX_MESSAGE, &dwMax);
    const CmResult rv = m_pConn->SendData(first);
    m_Network.Note("message", dwNumber, static_cast<uint64_t>(rv));
    if (!m_bOpen)
        return;
    if (first.GetChainedLength() != (rv == CM_OK ? 0 : dwLength))
        Fail_i("a part of a message was taken");
    if ((rv == CM_ERROR_INVALID_ARG) != (dwLength > dwMax) || rv == CM_ERROR_NOT_AVAILABLE)
        Fail_i("length " + std::to_string(dwLength) + " gives " + std::to_string(rv));
    if (rv == CM_OK && dwLength > 0)
        Out_i().m_Taken[dwNumber] = dwLength;
    m_bOwedOnSend = m_bOwedOnSend || rv == CM_ERROR_PARTIAL_DATA;
}

void CSimUser::Upcall_i(const char* aWhat) {
    m_Network.Note(aWhat, m_wPort, m_bServer);
    if (!m_bOpen)
        Fail_i(std::string(aWhat) + " after the end");
}

void CSimUser::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    Upcall_i("OnReceive");
    CheckMessage_i(aData);
    Feel_i(10);
}

// Over a stream the next one that the peer's SendData took. Over datagrams any of them.
void CSimUser::CheckMessage_i(CCmMessageBlock& aData) {
    const std::string strText = aData.FlattenChained();
    CSimFlow& flow = In_i();
    auto it = flow.m_Taken.upper_bound(flow.m_dwLast);
    if (m_World.m_Kind.m_bDatagrams) {
        DWORD dwNumber = 0;
        for (size_t i = 0; i < MIN_LENGTH && i < strText.size(); ++i)
            dwNumber |= DWORD{static_cast<BYTE>(strText[i])} << (8 * i);
        it = flow.m_Taken.find(dwNumber);
    }
    if (it == flow.m_Taken.end() || strText != TextOf(it->first, it->second))
        Fail_i("a message of " + std::to_string(strText.size()) + " bytes that nobody sent, or out of turn");
    else
        flow.m_dwLast = it->first;
}

void CSimUser::OnSend(ICmTransport*, CCmTransportParameter*) {
    Upcall_i("OnSend");
    m_bOwedOnSend = FALSE;
    Feel_i(40);
}

void CSimUser::OnDisconnect(CmResult aReason, ICmTransport*) {
    Upcall_i("OnDisconnect");
    m_bOpen = FALSE;
    const CSimUser* pPeer = GetPeer_i();
    const BOOL bSilence = aReason == CM_ERROR_NETWORK_CONNECT_TIMEOUT && IsSilenceTheEnd_i();
    const BOOL bEnded = pPeer ? !pPeer->m_bOpen && aReason == m_Link.m_Reason : aReason == CM_OK;  // nobody kept it
    const BOOL bLost = aReason == CM_ERROR_NETWORK_SOCKET_ERROR ||
                       (m_World.m_Kind.m_bDatagrams && aReason != CM_ERROR_NETWORK_CONNECT_TIMEOUT &&
                        (aReason == CM_OK || aReason >= 20000));  // of an earlier peer, perhaps
    if (!bSilence && !bEnded && !bLost && !m_Link.m_bOdd)
        Fail_i("OnDisconnect " + std::to_string(aReason));
    const BOOL bWhole = m_Link.m_bComplete || (m_Network.Now() < m_Link.m_llLingers && !m_Network.HasJumped());
    if (bWhole && !bSilence && !m_Link.m_bOdd && IsMissing_i())
        Fail_i("the end came before a message");
    if (m_Link.m_bTold && !bSilence && !m_Link.m_bOdd && !bEnded)
        Fail_i("the reason was lost: " + std::to_string(aReason));
    Feel_i(50);
    if (m_Network.Chance(50))
        m_pConn.Reset();
}

DWORD CSimUser::KeyBelow_i() const {
    return m_bServer ? CSimWatch::KeyOf(CSimWorld::PORT, m_wPort) : CSimWatch::KeyOf(m_wPort, CSimWorld::PORT);
}

// Follows the timer of the connection, which fires first.
void CSimUser::StartTimer_i(DWORD aSeconds) {
    m_llTimer = m_Network.Now();
    m_llInterval = aSeconds * SIM_SEC;
    m_Network.After(m_llInterval, [this] { Fired_i(); });
}

void CSimUser::Fired_i() {
    const int64_t llPassed = m_Network.Now() - m_llTimer;
    if (!m_bOpen || llPassed == 0 || llPassed % m_llInterval != 0 || m_Network.HasJumped())
        return;
    m_Network.After(m_llInterval, [this] { Fired_i(); });
    if (IsPeerSilent_i())
        Fail_i("a silent peer is not given up");
    const int64_t llQuiet = m_Network.Tick() - m_World.m_Watch.LastSent(KeyBelow_i());
    if (m_World.m_Kind.m_bKeepAlive && llQuiet > m_llInterval / SIM_SEC && !m_Link.m_bOdd)
        Fail_i("no keep-alive, nothing sent for " + std::to_string(llQuiet));
}

BOOL CSimUser::IsPeerSilent_i() const {
    const int64_t llLast = std::max(m_World.m_Watch.LastReceived(KeyBelow_i()), m_llUnpaused);
    return m_World.m_Kind.m_bPackage && m_llTimer >= 0 && !m_bPaused && m_Network.Tick() - llLast >= IDLE_LIMIT;
}

// Only a firing ends it.
BOOL CSimUser::IsSilenceTheEnd_i() const {
    return m_Network.HasJumped() || (IsPeerSilent_i() && (m_Network.Now() - m_llTimer) % m_llInterval == 0);
}

// What the transport has not taken by now lingers after an orderly end; after any other it is lost, the reason among it, and a
// link that breaks loses more.
void CSimUser::NoteEnd_i(CmResult aReason) {
    const CCmSimPath& path = m_Network.GetPath();
    const CCmSimEnd* pBelow = FindBelow_i();
    DWORD dwUnsent = 0;
    const DWORD dwTaken = pBelow ? pBelow->m_dwUnread : 0;
    m_pConn->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwUnsent);
    const CSimUser* pPeer = GetPeer_i();
    if (!pPeer || pPeer->m_bOpen) {
        const BOOL bWhole = !m_World.m_Kind.m_bDatagrams && path.m_Cut == 0;
        m_Link.m_bComplete = bWhole && dwUnsent == dwTaken;
        m_Link.m_llLingers = bWhole && aReason == CM_OK ? m_Network.Now() + LINGER : 0;
        m_Link.m_bTold =
            m_Link.m_bComplete && m_World.m_Kind.m_bTellsReason && path.m_PartialSend == 0 && dwTaken < path.m_dwBuffer / 2;
        m_Link.m_Reason = m_World.m_Kind.m_bTellsReason ? aReason & 0xFFFF : CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    m_bOpen = FALSE;
    m_Network.Note("end", m_wPort, static_cast<uint64_t>(aReason));
}

void CSimUser::End(CmResult aReason, BOOL aRelease) {
    if (m_bOpen)
        NoteEnd_i(aRelease ? CM_OK : aReason);
    if (aRelease)
        m_pConn.Reset();
    else if (m_pConn)
        m_pConn->Disconnect(aReason);
}

void CSimUser::Settle() {
    if (m_bPaused)
        Set_i(CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
}

BOOL CSimUser::IsMissing_i() const { return In_i().m_Taken.upper_bound(In_i().m_dwLast) != In_i().m_Taken.end(); }

void CSimUser::CheckStanding() {
    if (!m_bOpen)
        return;
    const CCmSimEnd* pBelow = FindBelow_i();
    if (!pBelow)
        Fail_i("OnDisconnect is owed: nothing is below");
    else if (m_bOwedOnSend && !pBelow->m_bOwesSend && !pBelow->m_bBroken)
        Fail_i("OnSend is owed, and nobody will bring it");
}

// Over datagrams only those who watch each other notice an end.
void CSimUser::CheckDebts() {
    if (!m_bOpen)
        return;
    if (m_bOwedOnSend)
        Fail_i("OnSend is owed");
    const BOOL bWatched = m_World.m_Kind.m_bPackage && m_World.m_Kind.m_bKeepAlive && !m_Link.m_bOdd;
    if (m_World.m_Kind.m_bDatagrams && !bWatched)
        return;
    if (!GetPeer_i() || !GetPeer_i()->m_bOpen)
        Fail_i("OnDisconnect is owed");
    else if (IsMissing_i())
        Fail_i("messages are owed");
}
