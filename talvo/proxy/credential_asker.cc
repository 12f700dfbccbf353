#include "talvo/proxy/credential_asker.h"

#include "talvo/proxy/credential_desk.h"

namespace talvo {

CmResult CAskEvent::OnEventFire() {
    m_Desk.Ask_i(*this);
    return CM_OK;
}

void CAskerThread::OnThreadEnd() {
    m_Desk.OnAskerThreadEnd_i(*this);
    delete this;
}

}  // namespace talvo
