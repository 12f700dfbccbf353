#include "talvo/session/forward_session_proxy.h"

#include <algorithm>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CForwardSessionProxy");

using Guard = CCmMutexGuardT<CCmMutexThread>;

BOOL Add(std::vector<CForwardMessage>& aTo, CForwardMessage& aMessage) {
    return WithMemory([&] { aTo.push_back(std::move(aMessage)); });
}

BOOL Grow(std::vector<CForwardUpcall>& aUpcalls, size_t aNeeded) {
    const size_t stHas = aUpcalls.capacity();
    return aNeeded <= stHas || WithMemory([&] { aUpcalls.reserve(std::max(aNeeded, 2 * stHas)); });
}

}  // namespace

CmResult CForwardQueue::Push(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader, BOOL& aWake) {
    Guard guard(m_Mutex);
    if (m_ullWaiting >= LIMIT) {
        m_bRefused = TRUE;
        return CM_ERROR_PARTIAL_DATA;
    }
    CForwardMessage message;
    const CmResult rv = m_Packer.Pack(aData, aLength, aHeader, message);
    if (rv != CM_OK || !Add(m_Messages, message))
        return CM_ERROR_OUT_OF_MEMORY;
    m_ullWaiting += aLength + MESSAGE_COST;
    m_dwQuiet += aLength + MESSAGE_COST;
    aWake = m_dwQuiet >= WAKE_BYTES;
    if (aWake)
        m_dwQuiet = 0;
    return CM_OK;
}

void CForwardQueue::SetFraming(EForwardFraming aFraming) {
    Guard guard(m_Mutex);
    m_Packer.SetFraming(aFraming);
}

BOOL CForwardQueue::Take(std::vector<CForwardMessage>& aMessages) {
    Guard guard(m_Mutex);
    m_Messages.swap(aMessages);
    m_dwQuiet = 0;
    return !aMessages.empty();
}

BOOL CForwardQueue::Taken(uint64_t aCost) {
    Guard guard(m_Mutex);
    m_ullWaiting -= aCost;
    return m_bRefused && m_ullWaiting <= LIMIT / 2 && std::exchange(m_bRefused, FALSE);
}

BOOL CForwardUpcalls::Reserve(DWORD aCount) {
    Guard guard(m_Mutex);
    return Grow(m_Upcalls, m_Upcalls.size() + aCount);
}

void CForwardUpcalls::Add(const CForwardUpcall& aUpcall) {
    Guard guard(m_Mutex);
    m_Upcalls.push_back(aUpcall);
}

size_t CForwardUpcalls::GetCount() {
    Guard guard(m_Mutex);
    return m_Upcalls.size() - m_stTaken;
}

CForwardUpcall CForwardUpcalls::Take() {
    Guard guard(m_Mutex);
    const CForwardUpcall upcall = m_Upcalls[m_stTaken++];
    if (m_stTaken == m_Upcalls.size()) {
        m_Upcalls.clear();
        m_stTaken = 0;
    }
    return upcall;
}

void CForwardUpcalls::Drop(DWORD aId) {
    Guard guard(m_Mutex);
    for (CForwardUpcall& upcall : m_Upcalls) {
        if (upcall.m_dwId == aId)
            upcall.m_dwId = 0;
    }
}

CForwardProxyCore::CForwardProxyCore(ICmForwardSink& aSink, CCmThreadLink& aUser, CCmThreadLink& aNetwork)
    : CProxyCore(aUser, aNetwork), m_pSink(&aSink) {
    ++s_Live;
}

CForwardProxyCore::~CForwardProxyCore() { --s_Live; }

CmResult CForwardSessionProxy::Make(ICmForwardSink& aSink, CCmThreadLink& aUser, CCmThreadLink& aNetwork,
                                    ICmForwardSession*& aSession) {
    CCmRefPtrT<CForwardSessionProxy> pProxy = Make_i<CForwardSessionProxy>(aSink, aUser, aNetwork);
    if (!pProxy)
        return CM_ERROR_OUT_OF_MEMORY;
    CForwardProxyCore& core = *pProxy->m_pCore;
    const CmResult rv = aNetwork.Call([&core] { return core.Open_i(); });
    if (rv != CM_OK)
        return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NULL_POINTER;
    aSession = pProxy.Detach();
    return CM_OK;
}

CmResult CForwardProxyCore::Open_i() {
    m_pCore = CCmRefPtrT<CForwardCore>(new (std::nothrow) CForwardCore(*this, TRUE));
    if (!m_pCore)
        return CM_ERROR_OUT_OF_MEMORY;
    if (!Host_i()) {
        m_pCore.Reset();
        return CM_ERROR_NULL_POINTER;
    }
    NoteReceivers_i();
    return CM_OK;
}

// What the user's thread needs of them.
void CForwardProxyCore::NoteReceivers_i() {
    m_dwMaxMessage = m_pCore->GetLeastMaxMessage();
    m_Queue.SetFraming(m_pCore->GetFraming());
}

// Runs aUse in the network thread, unless the session is closed.
template <class Use>
CmResult CForwardProxyCore::Call_i(Use aUse) {
    return GetNetwork().Call([this, &aUse] { return m_pCore ? aUse(*m_pCore) : CM_ERROR_NOT_AVAILABLE; });
}

CmResult CForwardProxyCore::AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId) {
    return Call_i([&](CForwardCore& aCore) {
        if (!m_Upcalls.Reserve(2 * (aCore.GetReceiverCount() + 1)))  // OnJoin and OnReceiver of each
            return CM_ERROR_OUT_OF_MEMORY;
        DrainAll_i();  // these were forwarded before
        const CmResult rv = aCore.AddReceiver(aTransport, aOptions, aId);
        NoteReceivers_i();
        return rv;
    });
}

CmResult CForwardProxyCore::RemoveReceiver(DWORD aId, CmResult aReason) {
    return Call_i([&](CForwardCore& aCore) {
        const CmResult rv = aCore.RemoveReceiver(aId, aReason);
        if (rv == CM_OK)
            m_Upcalls.Drop(aId);
        return rv;
    });
}

CmResult CForwardProxyCore::SetOption(DWORD aCommand, void* aArg) {
    return Call_i([&](CForwardCore& aCore) {
        const CmResult rv = aCore.SetOption(aCommand, aArg);
        NoteReceivers_i();
        return rv;
    });
}

CmResult CForwardProxyCore::GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId) {
    return GetNetwork().Call([&] {
        if (m_pCore)
            return m_pCore->GetStatistics(aStatistics, aId);
        if (aId != 0)
            return CM_ERROR_NOT_FOUND;
        aStatistics = m_Last;
        return CM_OK;
    });
}

CCmString CForwardProxyCore::Dump() {
    CCmString strDump;
    Call_i([&](CForwardCore& aCore) {
        strDump = aCore.Dump();
        return CM_OK;
    });
    return strDump;
}

CmResult CForwardProxyCore::Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader) {
    if (m_bClosed)
        return CM_ERROR_NOT_AVAILABLE;
    const DWORD dwLength = aData.GetChainedLength();
    if (dwLength == 0)
        return CM_OK;
    if (IsTooLong_i(dwLength))
        return CM_ERROR_INVALID_ARG;
    BOOL bWake = FALSE;
    CmResult rv = m_Queue.Push(aData, dwLength, aHeader, bWake);
    if (rv != CM_OK)
        return rv;
    rv = bWake ? m_DrainEvent.Post(GetNetwork()) : m_DrainEvent.PostQuietly(GetNetwork());
    if (rv != CM_OK)
        return CM_ERROR_NOT_AVAILABLE;
    if (bWake)
        GetNetwork().WakeUp();
    aData.AdvanceChainedReadPtr(dwLength);
    return CM_OK;
}

// A receiver that is gone may have had the lowest limit; the network thread has the present one.
BOOL CForwardProxyCore::IsTooLong_i(DWORD aLength) {
    if (aLength > m_dwMaxMessage)
        Call_i([this](CForwardCore& aCore) {
            m_dwMaxMessage = aCore.GetMaxMessage();
            return CM_OK;
        });
    return aLength > m_dwMaxMessage;
}

CmResult CForwardProxyCore::Close(CmResult aReason) {
    m_pSink = nullptr;
    m_bClosed = TRUE;
    return Call_i([&](CForwardCore&) {
        End_i(aReason);
        return CM_OK;
    });
}

void CForwardProxyCore::Abandon() {
    m_pSink = nullptr;
    m_bClosed = TRUE;
    m_EndEvent.Post(GetNetwork());
}

// May delete this object, unless the caller holds a reference.
void CForwardProxyCore::End_i(CmResult aReason) {
    DrainAll_i();
    const CCmRefPtrT<CForwardCore> pCore = std::move(m_pCore);
    if (!pCore)
        return;
    m_bClosed = TRUE;
    pCore->Close(aReason);
    pCore->GetStatistics(m_Last, 0);
    Leave_i();
}

void CForwardProxyCore::EndAbandoned_i() { End_i(CM_OK); }

void CForwardProxyCore::OnThreadEnd() { End_i(CM_ERROR_NETWORK_SOCKET_CLOSE); }

// A WAIT receiver at its limit stops it until OnForward. Without memory a message is tried again.
void CForwardProxyCore::Drain_i() {
    const CCmRefPtrT<CProxyCore> pKeep(this);
    uint64_t ullCost = 0;
    CmResult rv = CM_OK;
    if (m_stNext == m_Messages.size()) {
        m_Messages.clear();
        m_stNext = 0;
        m_Queue.Take(m_Messages);
    }
    for (; m_pCore && m_stNext < m_Messages.size(); ++m_stNext) {
        CForwardMessage& message = m_Messages[m_stNext];
        const DWORD dwLength = message.m_dwLength;
        rv = m_pCore->ForwardMessage(message);
        if (rv == CM_ERROR_PARTIAL_DATA || rv == CM_ERROR_OUT_OF_MEMORY)
            break;
        if (rv != CM_OK)
            CM_ERROR_TRACE_THIS("CForwardSessionProxy::Forward, a message is lost. len=" << dwLength << " rv=" << rv);
        ullCost += dwLength + CForwardQueue::MESSAGE_COST;
    }
    if (ullCost > 0 && m_Queue.Taken(ullCost))
        m_RoomEvent.Post(GetUser());
    if (m_pCore && (rv == CM_ERROR_OUT_OF_MEMORY || (ullCost > 0 && m_stNext == m_Messages.size())))
        m_DrainEvent.PostQuietly(GetNetwork());
}

// The first one may end with the messages that were taken from the queue before.
void CForwardProxyCore::DrainAll_i() {
    Drain_i();
    Drain_i();
}

void CForwardProxyCore::ReportRoom_i() {
    if (ICmForwardSink* pSink = m_pSink)
        pSink->OnForward();
}

void CForwardProxyCore::PostUpcall_i(const CForwardUpcall& aUpcall) {
    m_Upcalls.Add(aUpcall);
    m_UpcallEvent.Post(GetUser());
}

// Those that were added before; an event follows for the others.
void CForwardProxyCore::MakeUpcalls_i() {
    for (size_t n = m_Upcalls.GetCount(); n > 0; --n) {
        const CForwardUpcall upcall = m_Upcalls.Take();
        ICmForwardSink* pSink = m_pSink;
        if (pSink && upcall.m_dwId != 0)
            MakeUpcall_i(*pSink, upcall);
    }
}

// The receiver starts when the user's OnJoin has returned. Without the user's thread there is none.
void CForwardProxyCore::MakeUpcall_i(ICmForwardSink& aSink, const CForwardUpcall& aUpcall) {
    if (!aUpcall.m_bJoins)
        return aSink.OnReceiver(aUpcall.m_dwId, aUpcall.m_Reason);
    aSink.OnJoin(aUpcall.m_dwId);
    Call_i([&](CForwardCore& aCore) {
        aCore.StartReceiver(aUpcall.m_dwId);
        return CM_OK;
    });
}

}  // namespace talvo
