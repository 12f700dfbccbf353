#include "talvo/transport/thread_proxy/proxy_queues.h"

#include <algorithm>
#include <utility>

#include "talvo/base/block_chain.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

constexpr uint64_t WAKE_STEP = 32 * 1024;  // bytes: enough to pay for a wake-up, too little to be late

// aChain (out): a duplicate of aData; null, with TRUE, if a copy is better. FALSE: memory ran out.
BOOL DuplicateUnlessSmall(const CCmMessageBlock& aData, DWORD aLength, BOOL aMayCopy, CCmChainPtr& aChain) {
    if (aMayCopy && aLength <= CMessageList::MAX_COPIED)
        return TRUE;
    aChain = aLength > 0 ? DuplicateUnread(aData) : NewBlock(0);
    return bool{aChain};
}

// FALSE: memory ran out, and aChain is deleted.
BOOL AddTo(CMessageList& aList, CCmChainPtr aChain, const CCmMessageBlock& aData, DWORD aLength) {
    return aChain ? aList.Add(std::move(aChain)) : aList.AddCopy(aData, aLength);
}

}  // namespace

DWORD CountBlocks(const CCmMessageBlock& aChain) {
    DWORD dwBlocks = 0;
    for (const CCmMessageBlock* pMb = &aChain; pMb; pMb = pMb->GetNext())
        ++dwBlocks;
    return dwBlocks;
}

void CProxyQueue::SetFraming(IFramedSending::EFraming aFraming) {
    Guard guard(m_Mutex);
    m_Chains.SetFraming(aFraming);
}

void CProxyQueue::SetLimit(DWORD aLimit) {
    Guard guard(m_Mutex);
    m_Limit.Set(aLimit);
}

void CProxyQueue::GrowLimit(DWORD aBuffer) {
    Guard guard(m_Mutex);
    m_Limit.Grow(aBuffer);
}

DWORD CProxyQueue::GetLimit() {
    Guard guard(m_Mutex);
    return m_Limit.Get();
}

DWORD CProxySendQueue::GetMostBlocks_l() const { return std::max(m_Limit.Get(), CProxyLimit::DEFAULT) / BYTES_A_BLOCK; }

CmResult CProxySendQueue::Push(const CCmMessageBlock& aData, DWORD aLength, DWORD aCost, BOOL aMayCopy, BOOL& aNotify,
                               BOOL& aWake) {
    CCmChainPtr pChain;
    if (!DuplicateUnlessSmall(aData, aLength, aMayCopy, pChain))
        return CM_ERROR_OUT_OF_MEMORY;
    const DWORD dwBlocks = pChain ? CountBlocks(*pChain) : 0;
    Guard guard(m_Mutex);
    if (m_bClosed)
        return CM_ERROR_NULL_POINTER;
    if (m_ullWaiting > m_Limit.Get() || m_ullBlocks > GetMostBlocks_l()) {
        m_bRefused = TRUE;
        return CM_ERROR_PARTIAL_DATA;
    }
    if (!AddTo(m_Chains, std::move(pChain), aData, aLength))
        return CM_ERROR_OUT_OF_MEMORY;
    m_ullWaiting += aCost;
    m_ullBlocks += dwBlocks;
    m_ullQuiet += aCost;
    aWake = m_ullQuiet >= WAKE_STEP;
    if (aWake)
        m_ullQuiet = 0;
    aNotify = !std::exchange(m_bNotified, TRUE);
    return CM_OK;
}

BOOL CProxySendQueue::Take(CMessageList& aMessages) {
    Guard guard(m_Mutex);
    aMessages.Swap(m_Chains);
    m_ullQuiet = 0;
    m_bNotified = !aMessages.IsEmpty();
    return m_bNotified;
}

BOOL CProxySendQueue::Sent(uint64_t aCost, DWORD aBlocks) {
    Guard guard(m_Mutex);
    m_ullWaiting -= aCost;
    m_ullBlocks -= aBlocks;
    if (!m_bRefused || m_ullWaiting > m_Limit.Get() / 2 || m_ullBlocks > GetMostBlocks_l() / 2)
        return FALSE;
    m_bRefused = FALSE;
    return TRUE;
}

void CProxySendQueue::Close() {
    Guard guard(m_Mutex);
    m_bClosed = TRUE;
}

BOOL CProxySendQueue::TakeRefusal() {
    Guard guard(m_Mutex);
    return std::exchange(m_bRefused, FALSE);
}

uint64_t CProxySendQueue::GetWaiting() {
    Guard guard(m_Mutex);
    return m_ullWaiting;
}

CmResult CProxyReceiveQueue::Push(const CCmMessageBlock& aChunk, DWORD aLength, BOOL aMayCopy, BOOL& aStop) {
    CCmChainPtr pChain;
    if (!DuplicateUnlessSmall(aChunk, aLength, aMayCopy, pChain))
        return CM_ERROR_OUT_OF_MEMORY;
    Guard guard(m_Mutex);
    if (!AddTo(m_Chains, std::move(pChain), aChunk, aLength))
        return CM_ERROR_OUT_OF_MEMORY;
    aStop = Added_l(uint64_t{aLength} + CHUNK_COST);
    return CM_OK;
}

CmResult CProxyReceiveQueue::PushFrames(const char* aFrames, DWORD aLength, DWORD aCount, BOOL& aStop) {
    Guard guard(m_Mutex);
    if (!m_Chains.AddFrames(aFrames, aLength, aCount))
        return CM_ERROR_OUT_OF_MEMORY;
    const DWORD dwHeader = FrameHeaderLength(m_Chains.GetFraming());
    aStop = Added_l(aLength + uint64_t{aCount} * (CHUNK_COST - dwHeader));
    return CM_OK;
}

// TRUE: reading must stop.
BOOL CProxyReceiveQueue::Added_l(uint64_t aCost) {
    m_ullWaiting += aCost;
    const BOOL bStop = !m_bStopped && m_ullWaiting > m_Limit.Get();
    m_bStopped = m_bStopped || bStop;
    return bStop;
}

BOOL CProxyReceiveQueue::Take(CMessageList& aChunks) {
    Guard guard(m_Mutex);
    aChunks.Swap(m_Chains);
    return !aChunks.IsEmpty();
}

BOOL CProxyReceiveQueue::Taken(uint64_t aCost) {
    Guard guard(m_Mutex);
    m_ullWaiting -= aCost;
    if (!m_bStopped || m_ullWaiting > m_Limit.Get() / 2)
        return FALSE;
    m_bStopped = FALSE;
    return TRUE;
}

BOOL CProxyReceiveQueue::IsStopped() {
    Guard guard(m_Mutex);
    return m_bStopped;
}

}  // namespace talvo
