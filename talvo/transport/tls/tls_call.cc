#include "talvo/transport/tls/tls_call.h"

#include <algorithm>
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

std::unique_ptr<CTlsInput> CTlsBuffers::TakeInput(DWORD aRoom) {
    if (m_pInput && m_pInput->m_dwRoom >= aRoom)
        return std::move(m_pInput);
    m_pInput.reset();
    std::unique_ptr<CTlsInput> pInput(new (std::nothrow) CTlsInput);
    if (!pInput)
        return nullptr;
    pInput->m_dwRoom = std::max(aRoom, CTlsSession::RECORD);
    pInput->m_pBytes.reset(new (std::nothrow) char[pInput->m_dwRoom]);
    return pInput->m_pBytes ? std::move(pInput) : nullptr;
}

void CTlsBuffers::GiveBack(std::unique_ptr<CTlsInput> aInput) {
    if (aInput && (!m_pInput || m_pInput->m_dwRoom < aInput->m_dwRoom))
        m_pInput = std::move(aInput);
}

CTlsCall::CTlsCall(CTlsCall*& aCurrent, DWORD aReadSize)
    : m_pBuffers(TakeBuffers()), m_dwReadSize(aReadSize), m_pCurrent(aCurrent), m_pOuter(std::exchange(aCurrent, this)) {}

CTlsCall::~CTlsCall() {
    m_pCurrent = m_pOuter;
    if (m_pBuffers)
        GiveBack(m_pBuffers);
}

}  // namespace talvo
