// The socket's own options, the same for every transport over it.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/transport/transport_base.h"

CmResult CCmTransportBase::SetSocketOption_i(const char* aClass, CCmSocketBase* aSocket, DWORD aCommand, void* aArg) {
    const auto set = [aSocket](int aName, int aValue) {
        if (!aSocket || aSocket->SetOption(SOL_SOCKET, aName, &aValue, sizeof aValue) == -1)
            return CM_ERROR_NETWORK_SOCKET_ERROR;
        return CM_OK;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_KEEPALIVE: {  // a datagram socket accepts it, without effect
        const DWORD dwTime = *static_cast<DWORD*>(aArg);
        const CmResult rv = set(SO_KEEPALIVE, dwTime > 0);
        if (rv != CM_OK)
            CM_ERROR_TRACE_THIS(aClass << "::SetOption, SetOption(SO_KEEPALIVE) failed! dwTime=" << dwTime << " err=" << errno);
        return rv;
    }
    case CM_OPT_TRANSPORT_SNDBUF:
        return set(SO_SNDBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_RCVBUF:
        return set(SO_RCVBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_TOS:
        return aSocket ? SetTos2Socket(*aSocket, aArg) : CM_ERROR_NETWORK_SOCKET_ERROR;
    default:
        CM_WARNING_TRACE_THIS(aClass << "::SetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
}

CmResult CCmTransportBase::GetSocketOption_i(const char* aClass, CCmSocketBase* aSocket, DWORD aCommand, void* aArg) {
    const auto get = [aSocket, aArg](int aName) {
        int nLength = sizeof(int);
        if (!aSocket || aSocket->GetOption(SOL_SOCKET, aName, aArg, &nLength) == -1)
            return CM_ERROR_NETWORK_SOCKET_ERROR;
        return CM_OK;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FIO_NREAD:
        if (aSocket && aSocket->Control(FIONREAD, aArg) == 0)
            return CM_OK;
        CM_WARNING_TRACE_THIS(aClass << "::GetOption, (CM_OPT_TRANSPORT_FIO_NREAD) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_FD:
        *static_cast<HANDLE*>(aArg) = GetHandle();
        return CM_OK;
    case CM_OPT_TRANSPORT_SNDBUF:
        return get(SO_SNDBUF);
    case CM_OPT_TRANSPORT_RCVBUF:
        return get(SO_RCVBUF);
    default:
        CM_WARNING_TRACE_THIS(aClass << "::GetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
}
