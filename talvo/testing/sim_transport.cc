#include "talvo/testing/sim_transport.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/testing/sim_acceptor.h"
#include "talvo/transport/datagram.h"
#include "talvo/transport/network_buffers.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CSimTransport");

constexpr int64_t FIRST_REPEAT = 200000;  // microseconds; each next one takes twice as long
constexpr int MAX_REPEATS = 6;
constexpr uint64_t MAX_TAIL = 20;  // bytes after a damaged datagram

}  // namespace

CSimTransport::CSimTransport(CSimCore& aCore, ICmReactor* aReactor, const CCmSimEnd& aEnd, const CSocketSettings& aSizes)
    : CCmTransportBase(aReactor),
      m_pCore(aCore.shared_from_this()),
      m_Key(aEnd.m_AddrLocal, aEnd.m_AddrPeer),
      m_End(aEnd),
      m_Sizes(aSizes) {
    ++s_Live;
    m_pCore->m_Ends[m_Key] = this;
}

CSimTransport::~CSimTransport() {
    CSimTransport::Close_t(CM_OK);
    --s_Live;
}

const CCmSimPath& CSimTransport::GetPathOut_i() const {
    const CCmSimLink& link = m_pCore->GetLink(m_End.m_bAccepted ? m_Key.first : m_Key.second);
    return m_End.m_bAccepted ? link.m_Down : link.m_Up;
}

const CCmSimPath& CSimTransport::GetPathIn_i() const {
    const CCmSimLink& link = m_pCore->GetLink(m_End.m_bAccepted ? m_Key.first : m_Key.second);
    return m_End.m_bAccepted ? link.m_Up : link.m_Down;
}

void CSimTransport::After_i(int64_t aDelay, void (CSimTransport::*aRun)()) {
    m_pCore->m_Schedule.After(aDelay, [pSelf = m_pSelf, aRun] {
        if (*pSelf)
            ((*pSelf)->*aRun)();
    });
}

// By key: the end may be deleted then.
void CSimTransport::AfterAt_i(CSimCore& aCore, int64_t aDelay, const CSimCore::CEndKey& aKey, void (CSimTransport::*aRun)()) {
    aCore.m_Schedule.After(aDelay, [&aCore, aKey, aRun] {
        if (CSimTransport* pEnd = aCore.FindEnd(aKey))
            (pEnd->*aRun)();
    });
}

CmResult CSimTransport::Open_t() {
    if (m_bClosed || m_pCore->IsOver())
        return CM_ERROR_NOT_INITIALIZED;
    if (m_pCore->m_pObserver)
        m_pCore->m_pObserver->OnOpen(m_End);
    if (m_End.m_bOwesSend)
        After_i(0, &CSimTransport::NotifyRoom_i);
    ScheduleDelivery_i();
    return CM_OK;
}

// A cut stream has ended for its peer as well.
CmResult CSimTransport::Close_t(CmResult) {
    if (std::exchange(m_bClosed, TRUE) || m_pCore->IsOver())
        return CM_OK;
    m_pCore->m_Trace.Note(m_End, "closes");
    m_pCore->m_Ends.erase(m_Key);
    *m_pSelf = nullptr;
    if (m_pCore->m_pObserver)
        m_pCore->m_pObserver->OnClose(m_End, !m_bEndArrived && !m_End.m_bBroken);
    if (!m_End.m_bDatagrams && !m_End.m_bBroken && !m_bEndSent)
        Post_i(END, {});
    return CM_OK;
}

CmResult CSimTransport::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_bClosed || m_pCore->IsOver())
        return CM_ERROR_NOT_INITIALIZED;
    iovec pieces[MAX_DATAGRAM_PIECES + 1];
    const DWORD dwPieces = aData.FillIov(pieces, m_End.m_bDatagrams ? MAX_DATAGRAM_PIECES + 1 : CNetworkBuffers::MAX_PIECES);
    size_t stLength = 0;
    for (DWORD i = 0; i < dwPieces; ++i)
        stLength += pieces[i].iov_len;
    if (m_pCore->m_pObserver)
        m_pCore->m_pObserver->OnSend(m_End, aData);
    if (m_End.m_bDatagrams && (stLength > MAX_DATAGRAM_LENGTH || dwPieces > MAX_DATAGRAM_PIECES))
        return CM_ERROR_INVALID_ARG;
    if (!m_End.m_bDatagrams && stLength == 0)
        return CM_OK;
    if (m_End.m_bBroken || m_bEndSent)
        return CM_ERROR_NETWORK_SOCKET_ERROR;

    const CCmSimPath& path = GetPathOut_i();
    const size_t stRoom = GetRoom_i(stLength, path);
    const BOOL bRefused = m_pCore->m_Random.Chance(path.m_PartialSend);
    const size_t stTaken = !bRefused ? stRoom : m_End.m_bDatagrams ? 0 : m_pCore->m_Random.Below(stRoom + 1);
    m_pCore->m_Trace.Note(m_End, "sends", static_cast<int64_t>(stTaken));
    std::string strBytes;
    for (DWORD i = 0; strBytes.size() < stTaken; ++i)
        strBytes.append(static_cast<const char*>(pieces[i].iov_base), std::min(pieces[i].iov_len, stTaken - strBytes.size()));
    aData.AdvanceChainedReadPtr(static_cast<DWORD>(stTaken));
    if (aPara)
        aPara->m_dwHaveSent = static_cast<DWORD>(stTaken);
    if (m_End.m_bDatagrams && !bRefused)
        SendDatagram_i(strBytes);
    else if (stTaken > 0)
        SendStream_i(std::move(strBytes));
    if (m_End.m_bDatagrams ? !bRefused : aData.GetChainedLength() == 0)
        return CM_OK;
    m_End.m_bOwesSend = TRUE;
    After_i(m_pCore->DelayOf(GetPathIn_i()), &CSimTransport::NotifyRoom_i);
    return CM_ERROR_PARTIAL_DATA;
}

size_t CSimTransport::GetRoom_i(size_t aLength, const CCmSimPath& aPath) const {
    if (m_End.m_bDatagrams)
        return aLength;
    const DWORD dwBuffer = m_Sizes.m_dwSendBuffer > 0 ? m_Sizes.m_dwSendBuffer : aPath.m_dwBuffer;
    return std::min<size_t>(aLength, dwBuffer - std::min(dwBuffer, m_End.m_dwUnread));
}

// The part before a cut arrives, followed by the cut.
void CSimTransport::SendStream_i(std::string aBytes) {
    const CCmSimPath& path = GetPathOut_i();
    CSimRandom& random = m_pCore->m_Random;
    uint64_t ullBeforeCut = aBytes.size();
    BOOL bCut = random.Chance(path.m_Cut);
    if (bCut)
        ullBeforeCut = random.Below(aBytes.size());
    if (path.m_ullCutAfter > 0 && m_ullTaken + ullBeforeCut >= path.m_ullCutAfter) {
        ullBeforeCut = path.m_ullCutAfter - std::min(m_ullTaken, path.m_ullCutAfter);
        bCut = TRUE;
    }
    m_ullTaken += aBytes.size();
    m_End.m_dwUnread += static_cast<DWORD>(aBytes.size());
    m_bMute = m_bMute || random.Chance(path.m_Mute);
    aBytes.resize(ullBeforeCut);
    if (!aBytes.empty())
        Post_i(DATA, std::move(aBytes));
    if (bCut)
        Cut_i();
}

void CSimTransport::Cut_i() {
    CSimRandom& random = m_pCore->m_Random;
    const BOOL bOne = random.Chance(GetPathOut_i().m_CutOneEnd);
    const BOOL bHere = !bOne || random.Chance(0.5);
    if (!bOne || !bHere)
        Post_i(CUT, {});
    m_bMute = TRUE;
    if (bHere)
        Break_i();
}

// Sends a piece to the peer, after all earlier ones. If the peer has closed, and its end was delivered here, it answers with a
// reset.
void CSimTransport::Post_i(EKind aKind, std::string aBytes) {
    const CCmSimPath& path = GetPathOut_i();
    const int64_t llNow = m_pCore->m_Schedule.Now();
    const int64_t llDelay = TimeOnLine_i(aBytes.size()) + TimeToRepeat_i() + m_pCore->DelayOf(path);
    m_llLastArrival = std::max(m_llLastArrival, llNow + llDelay);
    CSimTransport* pPeer = FindPeer_i();
    if (!pPeer && m_bEndNotified && aKind == DATA)
        After_i(m_llLastArrival - llNow + m_pCore->DelayOf(GetPathIn_i()), &CSimTransport::Break_i);
    if (m_bMute || !pPeer || pPeer->m_End.m_bBroken ||
        (aKind == END && path.m_bLoseEnd))  // a broken stream has lost what was before
        return;
    pPeer->m_OnTheWay.push_back({m_llLastArrival, aKind, std::move(aBytes)});
    pPeer->After_i(m_llLastArrival - llNow, &CSimTransport::TakeArrivals_i);
}

// The time until the last byte has left, after all earlier ones.
int64_t CSimTransport::TimeOnLine_i(size_t aLength) {
    const CCmSimPath& path = GetPathOut_i();
    if (path.m_dwBandwidth == 0)
        return 0;
    const int64_t llNow = m_pCore->m_Schedule.Now();
    const auto llTime = static_cast<int64_t>(aLength * 1000000 / path.m_dwBandwidth);
    m_llLineFree = std::max(m_llLineFree, llNow) + llTime;
    return m_llLineFree - llNow;
}

// A stream repeats a lost piece.
int64_t CSimTransport::TimeToRepeat_i() {
    int64_t llTime = 0;
    for (int i = 0; i < MAX_REPEATS && m_pCore->m_Random.Chance(GetPathOut_i().m_Loss); ++i)
        llTime += FIRST_REPEAT << i;
    return llTime;
}

void CSimTransport::SendDatagram_i(const std::string& aBytes) {
    const CCmSimPath& path = GetPathOut_i();
    CSimRandom& random = m_pCore->m_Random;
    if (random.Chance(path.m_Loss))
        m_pCore->m_Trace.Note(m_End, "loses", static_cast<int64_t>(aBytes.size()));
    else
        SendCopy_i(random.Chance(path.m_Damage) ? Damage_i(aBytes) : aBytes);
    if (random.Chance(path.m_Duplication))
        SendCopy_i(aBytes);
}

// Never makes bytes that a receiver could take for another datagram.
std::string CSimTransport::Damage_i(std::string aBytes) {
    if (m_pCore->m_Random.Chance(0.5))
        aBytes.resize(m_pCore->m_Random.Below(aBytes.size()));
    else
        aBytes.append(1 + m_pCore->m_Random.Below(MAX_TAIL), '\4');
    return aBytes;
}

// Each has a delay of its own, so they overtake each other. To an end, to an acceptor, or back as a refusal.
void CSimTransport::SendCopy_i(std::string aBytes) {
    const CCmSimPath& path = GetPathOut_i();
    const int64_t llDelay = m_pCore->DelayOf(path) * (m_pCore->m_Random.Chance(path.m_Reordering) ? 3 : 1);
    m_pCore->m_Schedule.After(TimeOnLine_i(aBytes.size()) + llDelay,
                              [&core = *m_pCore, key = m_Key, bAccepted = m_End.m_bAccepted, strBytes = std::move(aBytes)] {
                                  const CSimCore::CEndKey keyPeer{key.second, key.first};
                                  const CCmSimLink& link = core.GetLink(bAccepted ? key.first : key.second);
                                  if (core.IsSilent(bAccepted ? link.m_Down : link.m_Up))
                                      return;
                                  CSimAcceptor* pAcceptor = core.FindAcceptor(key.second, TRUE);
                                  if (CSimTransport* pEnd = core.FindEnd(keyPeer))
                                      pEnd->TakeDatagram(strBytes);
                                  else if (pAcceptor)
                                      pAcceptor->AcceptDatagram(keyPeer, strBytes);
                                  else
                                      AfterAt_i(core, core.DelayOf(bAccepted ? link.m_Up : link.m_Down), key,
                                                &CSimTransport::OnRefused);
                              });
}

// The socket of an accepted peer is shared, so a refusal is not for this end.
void CSimTransport::OnRefused() {
    if (m_End.m_bAccepted || m_pCore->IsSilent(GetPathIn_i()))
        return;
    NoteFailure_i(EXCHANGING, ECONNREFUSED);
    Fail_i();
}

}  // namespace talvo
