#include "talvo/transport/tls/tls_call.h"

#include <new>
#include <utility>

#include "talvo/transport/thread_buffers.h"

namespace talvo {

namespace {

[[gnu::tls_model("initial-exec")]] constinit thread_local CTlsBuffers* t_pBuffers = nullptr;

// Null: memory ran out.
CTlsBuffers* TakeBuffers() {
    CTlsBuffers* pBuffers = t_pBuffers ? t_pBuffers : MakeThreadBuffers(t_pBuffers);
    if (!pBuffers || pBuffers->m_bInUse)
        return new (std::nothrow) CTlsBuffers;
    pBuffers->m_bInUse = true;
    return pBuffers;
}

void GiveBack(CTlsBuffers* aBuffers) {
    if (aBuffers != t_pBuffers) {
        delete aBuffers;
        return;
    }
    aBuffers->m_Sealed.clear();
    aBuffers->m_bInUse = false;
}

}  // namespace

CTlsCall::CTlsCall(CTlsCall*& aCurrent, DWORD aReadSize)
    : m_pBuffers(TakeBuffers()), m_dwReadSize(aReadSize), m_pCurrent(aCurrent), m_pOuter(std::exchange(aCurrent, this)) {}

CTlsCall::~CTlsCall() {
    m_pCurrent = m_pOuter;
    if (m_pBuffers)
        GiveBack(m_pBuffers);
}

}  // namespace talvo
