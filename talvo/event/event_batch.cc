#include "talvo/event/event_batch.h"

#include "talvo/event/event_memory.h"
#include "talvo/event/thread_link.h"

namespace talvo {

namespace {

[[gnu::tls_model("initial-exec")]] constinit thread_local CEventBatch* t_pCurrent = nullptr;

}  // namespace

CEventBatch::CEventBatch() : m_pOuter(t_pCurrent) { t_pCurrent = this; }

CEventBatch::~CEventBatch() {
    flush_event_memory();
    t_pCurrent = m_pOuter;
    if (m_pToWake)
        m_pToWake->WakeUp();
}

CEventBatch* CEventBatch::Current() { return t_pCurrent; }

void CEventBatch::WakeAtEnd(CCmThreadLink& aLink) {
    if (m_pToWake == &aLink)
        return;
    if (m_pToWake)
        m_pToWake->WakeUp();
    m_pToWake = &aLink;
}

}  // namespace talvo
