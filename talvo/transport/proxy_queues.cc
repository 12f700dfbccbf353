#include "talvo/transport/proxy_queues.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

}  // namespace

void DestroyChains(std::vector<CCmMessageBlock*>& aChains) {
    for (CCmMessageBlock* pChain : aChains)
        pChain->DestroyChained();
    aChains.clear();
}

CProxySendQueue::~CProxySendQueue() { DestroyChains(m_Chains); }

void CProxySendQueue::SetLimit(DWORD aLimit) {
    Guard guard(m_Mutex);
    m_dwLimit = aLimit;
}

DWORD CProxySendQueue::GetLimit() {
    Guard guard(m_Mutex);
    return m_dwLimit;
}

CmResult CProxySendQueue::Push(const CCmMessageBlock& aData, DWORD aLength, BOOL& aWake) {
    CCmMessageBlock* pChain = aData.DuplicateChained();
    if (!pChain)
        return CM_ERROR_OUT_OF_MEMORY;
    if (Push_i(pChain, aLength, aWake))
        return CM_OK;
    pChain->DestroyChained();
    return CM_ERROR_PARTIAL_DATA;
}

BOOL CProxySendQueue::Push_i(CCmMessageBlock* aChain, DWORD aLength, BOOL& aWake) {
    Guard guard(m_Mutex);
    if (m_ullWaiting > m_dwLimit) {
        m_bRefused = TRUE;
        return FALSE;
    }
    m_Chains.push_back(aChain);
    m_ullWaiting += aLength;
    aWake = !m_bAwake;
    m_bAwake = TRUE;
    return TRUE;
}

BOOL CProxySendQueue::Take(std::vector<CCmMessageBlock*>& aChains) {
    Guard guard(m_Mutex);
    aChains.swap(m_Chains);
    m_bAwake = !aChains.empty();
    return m_bAwake;
}

BOOL CProxySendQueue::Sent(uint64_t aLength) {
    Guard guard(m_Mutex);
    m_ullWaiting -= aLength;
    if (!m_bRefused || m_ullWaiting > m_dwLimit / 2)
        return FALSE;
    m_bRefused = FALSE;
    return TRUE;
}

BOOL CProxySendQueue::IsEmpty() {
    Guard guard(m_Mutex);
    return m_ullWaiting == 0;
}

CProxyReceiveQueue::~CProxyReceiveQueue() { DestroyChains(m_Chunks); }

void CProxyReceiveQueue::SetLimit(DWORD aLimit) {
    Guard guard(m_Mutex);
    m_dwLimit = aLimit;
}

DWORD CProxyReceiveQueue::GetLimit() {
    Guard guard(m_Mutex);
    return m_dwLimit;
}

BOOL CProxyReceiveQueue::Push(CCmMessageBlock* aChunk, DWORD aLength) {
    Guard guard(m_Mutex);
    m_Chunks.push_back(aChunk);
    m_ullWaiting += aLength;
    if (m_bStopped || m_ullWaiting <= m_dwLimit)
        return FALSE;
    m_bStopped = TRUE;
    return TRUE;
}

BOOL CProxyReceiveQueue::Take(std::vector<CCmMessageBlock*>& aChunks) {
    Guard guard(m_Mutex);
    aChunks.swap(m_Chunks);
    return !aChunks.empty();
}

BOOL CProxyReceiveQueue::Taken(DWORD aLength) {
    Guard guard(m_Mutex);
    m_ullWaiting -= aLength;
    if (!m_bStopped || m_ullWaiting > m_dwLimit / 2)
        return FALSE;
    m_bStopped = FALSE;
    return TRUE;
}

BOOL CProxyReceiveQueue::IsStopped() {
    Guard guard(m_Mutex);
    return m_bStopped;
}

}  // namespace talvo
