#include "talvo/transport/socket.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "talvo/base/trace.h"

namespace {

// Repeats a system call that a signal interrupted.
template <class Call>
int Resumed(Call aCall) {
    for (;;) {
        const auto nRv = aCall();
        if (nRv != -1 || errno != EINTR)
            return static_cast<int>(nRv);
    }
}

// aCall fills a socket address in; its result.
template <class Call>
int WithAddr(CCmInetAddr& aAddr, Call aCall) {
    sockaddr_storage storage;
    socklen_t length = sizeof storage;
    auto* pAny = reinterpret_cast<sockaddr*>(&storage);
    const int nRv = aCall(pAny, &length);
    if (nRv == -1)
        return -1;
    const CmResult rv = cm_from_sockaddr(pAny, length, aAddr);
    if (rv == CM_OK)
        return nRv;
    errno = rv == CM_ERROR_OUT_OF_MEMORY ? ENOMEM : EAFNOSUPPORT;
    return -1;
}

msghdr MessageOf(const iovec* aIov, DWORD aCount) {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(aIov);  // sending does not write to it
    message.msg_iovlen = aCount;
    return message;
}

}  // namespace

int CCmIPCBase::Enable(int aValue) const {
    if (aValue != NON_BLOCK) {
        CM_ERROR_TRACE_THIS("CCmIPCBase::Enable, aValue=" << aValue);
        errno = EINVAL;
        return -1;
    }
    int nOn = 1;
    return Control(FIONBIO, &nOn);
}

int CCmIPCBase::Disable(int aValue) const {
    if (aValue != NON_BLOCK) {
        CM_ERROR_TRACE_THIS("CCmIPCBase::Disable, aValue=" << aValue);
        errno = EINVAL;
        return -1;
    }
    int nOff = 0;
    return Control(FIONBIO, &nOff);
}

int CCmIPCBase::Control(int aCmd, void* aArg) const { return ioctl(m_Handle, static_cast<unsigned long>(aCmd), aArg); }

int CCmSocketBase::Open(int aFamily, int aType, int aProtocol, BOOL aReuseAddr) {
    Close();
    m_Handle = socket(aFamily, aType | SOCK_CLOEXEC, aProtocol);
    if (m_Handle == CM_INVALID_HANDLE)
        return -1;
    const int nOn = 1;
    const int nOff = 0;  // whatever the system's default is
    const bool bBoth = aFamily != AF_INET6 || SetOption(IPPROTO_IPV6, IPV6_V6ONLY, &nOff, sizeof nOff) == 0;
    const bool bReuse = aFamily != AF_UNIX && aReuseAddr;
    if (bBoth && (!bReuse || SetOption(SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn) == 0))
        return 0;
    const int nErr = errno;
    Close();
    errno = nErr;
    return -1;
}

int CCmSocketBase::OpenFor(const CCmInetAddr& aAddr, int aType, BOOL aReuseAddr) {
    return Open(static_cast<int>(aAddr.GetType()), aType, 0, aReuseAddr);
}

int CCmSocketBase::Close() {
    if (m_Handle == CM_INVALID_HANDLE)
        return 0;
    const int nRv = close(m_Handle);  // never repeated: the descriptor is closed, whatever the result
    m_Handle = CM_INVALID_HANDLE;
    return nRv;
}

int CCmSocketBase::GetLocalAddr(CCmInetAddr& aAddr) const {
    return WithAddr(aAddr, [this](sockaddr* aAny, socklen_t* aLength) { return getsockname(m_Handle, aAny, aLength); });
}

int CCmSocketBase::GetRemoteAddr(CCmInetAddr& aAddr) const {
    return WithAddr(aAddr, [this](sockaddr* aAny, socklen_t* aLength) { return getpeername(m_Handle, aAny, aLength); });
}

int CCmSocketBase::SetOption(int aLevel, int aOption, const void* aValue, int aLength) const {
    return setsockopt(m_Handle, aLevel, aOption, aValue, static_cast<socklen_t>(aLength));
}

int CCmSocketBase::GetOption(int aLevel, int aOption, void* aValue, int* aLength) const {
    socklen_t length = static_cast<socklen_t>(*aLength);
    const int nRv = getsockopt(m_Handle, aLevel, aOption, aValue, &length);
    *aLength = static_cast<int>(length);
    return nRv;
}

int CCmSocketBase::Recv(char* aBuf, DWORD aLen, int aFlag) const {
    return Resumed([&] { return recv(m_Handle, aBuf, aLen, aFlag); });
}

int CCmSocketBase::Send(const char* aBuf, DWORD aLen, int aFlag) const {
    return Resumed([&] { return send(m_Handle, aBuf, aLen, aFlag | MSG_NOSIGNAL); });
}

int CCmSocketBase::RecvV(iovec* aIov, DWORD aCount) const {
    return Resumed([&] { return readv(m_Handle, aIov, static_cast<int>(aCount)); });
}

int CCmSocketBase::SendV(const iovec* aIov, DWORD aCount) const {
    if (aCount == 1)  // the plain call is cheaper
        return Send(static_cast<const char*>(aIov->iov_base), static_cast<DWORD>(aIov->iov_len));
    const msghdr message = MessageOf(aIov, aCount);
    return Resumed([&] { return sendmsg(m_Handle, &message, MSG_NOSIGNAL); });
}

template <class End>
int CCmSocketBase::BindOr_i(const CCmInetAddr& aLocal, End aEnd) {
    if (bind(m_Handle, reinterpret_cast<const sockaddr*>(aLocal.GetPtr()), aLocal.GetSize()) == 0)
        return 0;
    const int nErr = errno;
    aEnd();
    errno = nErr;
    return -1;
}

int CCmSocketTcp::Open(BOOL aReuseAddr) { return CCmSocketBase::Open(AF_INET, SOCK_STREAM, 0, aReuseAddr); }

int CCmSocketTcp::Open(BOOL aReuseAddr, const CCmInetAddr& aLocal) {
    if (OpenFor(aLocal, SOCK_STREAM, aReuseAddr) == -1)
        return -1;
    return BindOr_i(aLocal, [this] { Close(CM_OK); });
}

int CCmSocketTcp::Close(CmResult aReason) {
    if (m_Handle == CM_INVALID_HANDLE)
        return 0;
    if (aReason == CM_OK)
        CloseWriter();
    return CCmSocketBase::Close();
}

int CCmSocketTcp::CloseWriter() const { return shutdown(m_Handle, SHUT_WR); }
int CCmSocketTcp::CloseReader() const { return shutdown(m_Handle, SHUT_RD); }

int CCmSocketUdp::Open(const CCmInetAddr& aLocal) {
    if (OpenFor(aLocal) == -1)
        return -1;
    return BindOr_i(aLocal, [this] { Close(); });
}

int CCmSocketUdp::OpenFor(const CCmInetAddr& aAddr) {
    if (aAddr.GetType() != AF_UNIX)
        return CCmSocketBase::OpenFor(aAddr, SOCK_DGRAM, FALSE);
    errno = EAFNOSUPPORT;
    return -1;
}

int CCmSocketUdp::RecvFrom(char* aBuf, DWORD aLen, CCmInetAddr& aFrom, int aFlag) const {
    return WithAddr(aFrom, [&](sockaddr* aAny, socklen_t* aLength) {
        return Resumed([&] { return recvfrom(m_Handle, aBuf, aLen, aFlag, aAny, aLength); });
    });
}

int CCmSocketUdp::SendTo(const char* aBuf, DWORD aLen, const CCmInetAddr& aTo, int aFlag) const {
    return Resumed([&] {
        return sendto(m_Handle, aBuf, aLen, aFlag | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(aTo.GetPtr()),
                      aTo.GetSize());
    });
}

int CCmSocketUdp::SendVTo(const iovec* aIov, DWORD aCount, const CCmInetAddr& aTo) const {
    msghdr message = MessageOf(aIov, aCount);
    message.msg_name = const_cast<sockaddr_in*>(aTo.GetPtr());  // sending does not write to it
    message.msg_namelen = aTo.GetSize();
    return Resumed([&] { return sendmsg(m_Handle, &message, MSG_NOSIGNAL); });
}
