#include "talvo/transport/tcp_settings.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

namespace {

constexpr const char* SECTION = "Transport";

void SetBuffer(const CCmSocketTcp& aSocket, int aOption, DWORD aSize) {
    const int nSize = static_cast<int>(std::min<DWORD>(aSize, INT_MAX));
    if (nSize > 0 && aSocket.SetOption(SOL_SOCKET, aOption, &nSize, sizeof nSize) == -1)
        CM_WARNING_TRACE("CTcpSettings::ApplyTo, the system refuses a socket buffer. size=" << nSize << " err=" << errno);
}

}  // namespace

CTcpSettings CTcpSettings::Read() {
    const DWORD dwRead = get_uint32_param(SECTION, "ReadSize", CNetworkBuffers::DEFAULT_READ);
    const BOOL bFits = dwRead >= MIN_READ && dwRead <= MAX_READ;
    return {bFits ? dwRead : CNetworkBuffers::DEFAULT_READ, get_uint32_param(SECTION, "SendBuffer", 0),
            get_uint32_param(SECTION, "ReceiveBuffer", 0)};
}

void CTcpSettings::ApplyTo(const CCmSocketTcp& aSocket) const {
    SetBuffer(aSocket, SO_SNDBUF, m_dwSendBuffer);
    SetBuffer(aSocket, SO_RCVBUF, m_dwReceiveBuffer);
}

void AskForLargeReads(ICmTransport& aTransport) {
    DWORD dwSize = 0;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwSize) != CM_OK || dwSize >= CTcpSettings::LARGE_READ)
        return;
    dwSize = CTcpSettings::LARGE_READ;
    aTransport.SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwSize);
}

}  // namespace talvo
