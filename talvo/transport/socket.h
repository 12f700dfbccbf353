// Thin wrappers of the system's sockets.
#pragma once

#include <sys/uio.h>

#include "talvo/base/export.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// All operations return 0 or a byte count, and -1 with the system's error in errno. Interrupted calls are resumed. Descriptors
// are close-on-exec, sends never raise SIGPIPE. One thread at a time.
// A descriptor.
class TALVO_API CCmIPCBase {
public:
    // The property that Enable and Disable change.
    enum { NON_BLOCK = 0 };

    // The descriptor; CM_INVALID_HANDLE: none. SetHandle closes nothing.
    CmHandle GetHandle() const { return m_Handle; }
    void SetHandle(CmHandle aHandle) { m_Handle = aHandle; }

    // Only NON_BLOCK; any other value is traced and fails with EINVAL.
    int Enable(int aValue) const;
    int Disable(int aValue) const;

    // As ioctl().
    int Control(int aCmd, void* aArg) const;

protected:
    CCmIPCBase() = default;
    ~CCmIPCBase() = default;

    CmHandle m_Handle = CM_INVALID_HANDLE;
};

// A socket of any kind, which its end closes.
class TALVO_API CCmSocketBase : public CCmIPCBase {
public:
    CCmSocketBase(const CCmSocketBase&) = delete;
    CCmSocketBase& operator=(const CCmSocketBase&) = delete;

    // Closes an open socket and makes a new one, with SO_REUSEADDR if requested (not on Unix sockets). An IPv6 socket also
    // serves IPv4 peers if it is bound to "::".
    int Open(int aFamily, int aType, int aProtocol, CmBool aReuseAddr);
    // The same for the family of aAddr.
    int OpenFor(const CCmInetAddr& aAddr, int aType, CmBool aReuseAddr);
    // 0 also if no socket is open.
    int Close();

    // Addresses that are not IPv4 need memory: ENOMEM.
    int GetLocalAddr(CCmInetAddr& aAddr) const;
    int GetRemoteAddr(CCmInetAddr& aAddr) const;

    // As setsockopt() and getsockopt().
    int SetOption(int aLevel, int aOption, const void* aValue, int aLength) const;
    int GetOption(int aLevel, int aOption, void* aValue, int* aLength) const;

    // As recv(), send(), readv() and sendmsg().
    int Recv(char* aBuf, CmDword aLen, int aFlag = 0) const;
    int Send(const char* aBuf, CmDword aLen, int aFlag = 0) const;
    int RecvV(iovec* aIov, CmDword aCount) const;
    int SendV(const iovec* aIov, CmDword aCount) const;

protected:
    CCmSocketBase() = default;
    ~CCmSocketBase() { Close(); }

    // For the opens with an address: on failure the error in errno survives aEnd.
    template <class End>
    int BindOr_i(const CCmInetAddr& aLocal, End aEnd);
};

// A stream, also of a Unix socket.
class TALVO_API CCmSocketTcp : public CCmSocketBase {
public:
    ~CCmSocketTcp() { Close(CM_OK); }

    int Open(CmBool aReuseAddr);  // for IPv4
    // For the family of aLocal. Also binds; a failed bind closes the socket.
    int Open(CmBool aReuseAddr, const CCmInetAddr& aLocal);
    // CM_OK: shuts down the sending side first, so that the peer gets an orderly end.
    int Close(CmResult aReason);

    // Shuts down one direction.
    int CloseWriter() const;
    int CloseReader() const;
};

// A datagram socket.
class TALVO_API CCmSocketUdp : public CCmSocketBase {
public:
    // Opens and binds; a failed bind closes the socket. EAFNOSUPPORT: a path.
    int Open(const CCmInetAddr& aLocal);
    // Unlike the base's: EAFNOSUPPORT: a path.
    int OpenFor(const CCmInetAddr& aAddr);
    // ENOMEM: the datagram is lost; never for IPv4.
    int RecvFrom(char* aBuf, CmDword aLen, CCmInetAddr& aFrom, int aFlag = 0) const;
    int SendTo(const char* aBuf, CmDword aLen, const CCmInetAddr& aTo, int aFlag = 0) const;
    int SendVTo(const iovec* aIov, CmDword aCount, const CCmInetAddr& aTo) const;
};
