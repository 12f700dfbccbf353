#include "talvo/transport/socket_settings.h"

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

void SetBuffer(const CCmSocketBase& aSocket, int aOption, DWORD aSize) {
    const int nSize = static_cast<int>(std::min<DWORD>(aSize, INT_MAX));
    if (nSize > 0 && aSocket.SetOption(SOL_SOCKET, aOption, &nSize, sizeof nSize) == -1)
        CM_WARNING_TRACE("CSocketSettings::ApplyTo, the system refuses a socket buffer. size=" << nSize << " err=" << errno);
}

// The field for a command; null: none.
DWORD CSocketSettings::*FieldOf(DWORD aCommand) {
    switch (aCommand) {
    case CM_OPT_TRANSPORT_SNDBUF:
        return &CSocketSettings::m_dwSendBuffer;
    case CM_OPT_TRANSPORT_RCVBUF:
        return &CSocketSettings::m_dwReceiveBuffer;
    case CM_OPT_TRANSPORT_READ_SIZE:
        return &CSocketSettings::m_dwReadSize;
    default:
        return nullptr;
    }
}

}  // namespace

BOOL CSocketSettings::Has(DWORD aCommand) { return FieldOf(aCommand) != nullptr; }

// 0: the configuration's key. The size is an int and never negative, so it can be read and written as a DWORD.
BOOL CSocketSettings::IsBufferSize(const DWORD& aSize) { return aSize <= INT_MAX; }

BOOL CSocketSettings::IsReadSize(const DWORD& aSize) { return aSize == 0 || (aSize >= MIN_READ && aSize <= MAX_READ); }

CmResult CSocketSettings::SetOption(DWORD aCommand, const void* aArg) {
    const auto field = FieldOf(aCommand);
    if (!field)
        return CM_ERROR_INVALID_ARG;
    const DWORD dwSize = *static_cast<const DWORD*>(aArg);
    if (!(aCommand == CM_OPT_TRANSPORT_READ_SIZE ? IsReadSize(dwSize) : IsBufferSize(dwSize)))
        return CM_ERROR_INVALID_ARG;
    this->*field = dwSize;
    return CM_OK;
}

CmResult CSocketSettings::GetOption(DWORD aCommand, void* aArg) const {
    const auto field = FieldOf(aCommand);
    if (!field)
        return CM_ERROR_INVALID_ARG;
    *static_cast<DWORD*>(aArg) = this->*field;
    return CM_OK;
}

CSocketSettings CSocketSettings::WithConfiguration() const {
    const DWORD dwRead = get_uint32_param(SECTION, "ReadSize", CNetworkBuffers::DEFAULT_READ);
    CSocketSettings settings = *this;
    if (settings.m_dwReadSize == 0)
        settings.m_dwReadSize = dwRead != 0 && IsReadSize(dwRead) ? dwRead : CNetworkBuffers::DEFAULT_READ;
    if (settings.m_dwSendBuffer == 0)
        settings.m_dwSendBuffer = get_uint32_param(SECTION, "SendBuffer", 0);
    if (settings.m_dwReceiveBuffer == 0)
        settings.m_dwReceiveBuffer = get_uint32_param(SECTION, "ReceiveBuffer", 0);
    return settings;
}

void CSocketSettings::ApplyTo(const CCmSocketBase& aSocket) const {
    SetBuffer(aSocket, SO_SNDBUF, m_dwSendBuffer);
    SetBuffer(aSocket, SO_RCVBUF, m_dwReceiveBuffer);
}

void AskForLargeReads(ICmTransport& aTransport) {
    DWORD dwSize = 0;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwSize) != CM_OK || dwSize >= CSocketSettings::LARGE_READ)
        return;
    dwSize = CSocketSettings::LARGE_READ;
    aTransport.SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwSize);
}

void ResetAtClose(ICmTransport& aTransport) {
    HANDLE fd = CM_INVALID_HANDLE;
    const linger none{1, 0};
    if (aTransport.GetOption(CM_OPT_TRANSPORT_FD, &fd) == CM_OK)
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

}  // namespace talvo
