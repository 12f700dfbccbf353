#include "talvo/connection/protocol/pkg_conn.h"

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/transport/connection_type.h"

namespace {

constexpr DWORD MAX_BUFFER = 0x10000;

}  // namespace

CPkgConn::CPkgConn(BYTE aInstanceType) : CCsConn(MAX_BUFFER), m_dwStartTick(get_tick_count()) {
    m_dwType = talvo::CConnectionType::PACKAGE;
    m_bNeedACK = FALSE;
    m_byInstanceType = aInstanceType;
}

DWORD CPkgConn::GetAge_i() const { return calculate_tick_interval(m_dwStartTick, get_tick_count()); }

CmResult CPkgConn::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgConn::Disconnect(), aReason =" << aReason);
    return Close_i(aReason);
}

// A peer that closes gracefully during the opening has still refused it.
void CPkgConn::Lost_i(CmResult aReason) {
    const BOOL bConnected = m_wStatus == CS_STATUS_CONNECTED;
    End_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
    if (bConnected)
        NotifyEnd_i(aReason);
    else
        Indicate_i(aReason == CM_OK ? CM_ERROR_NETWORK_SOCKET_CLOSE : aReason);
}

void CPkgConn::LookAtPeer_i(const char* aWhere) {
    if (m_wStatus != CS_STATUS_CONNECTED)
        return;
    if (m_bNeedKeepAlive)
        SendKeepAliveIfDue_i();
    if (!m_Liveness.IsPeerSilent())
        return;
    CM_WARNING_TRACE_THIS(aWhere << ", dwCurrent - m_dwLastRecvTick =" << m_Liveness.GetSilence());
    NoteFailure_i(CM_FAILURE_SILENCE, "the peer has sent nothing for too long");
    Lost_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
}
