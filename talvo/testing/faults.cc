#include "talvo/testing/faults.h"

#include <execinfo.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <initializer_list>

extern "C" {
void* __libc_malloc(size_t aSize);
void* __libc_calloc(size_t aCount, size_t aSize);
void* __libc_realloc(void* aMemory, size_t aSize);
void* __libc_memalign(size_t aAlignment, size_t aSize);
}

namespace {

constinit thread_local bool t_bSafe = false;
std::atomic<bool> s_bArmed{false}, s_bFired{false};
std::atomic<DWORD> s_dwCalls{0};
CCmFaults::EKind s_Kind;
DWORD s_dwNth;
int s_nError;
CCmFaults::CPlace* s_pPlace = nullptr;

// Whether this call is one that fails.
bool IsReached(bool aAllocation, const char* aCall) {
    if (!s_bArmed || t_bSafe || aAllocation != (s_Kind != CCmFaults::SYSTEM_CALL))
        return false;
    const DWORD dwCall = ++s_dwCalls;
    if (s_Kind == CCmFaults::ALLOCATIONS_FROM ? dwCall < s_dwNth : dwCall != s_dwNth)
        return false;
    if (!s_bFired.exchange(true) && s_pPlace) {
        const CCmSafeCode safe;
        s_pPlace->m_pCall = aCall;
        s_pPlace->m_nDepth = backtrace(s_pPlace->m_Stack, CCmFaults::CPlace::MAX_DEPTH);
    }
    return true;
}

bool AllocationFails(const char* aCall) {
    if (!IsReached(true, aCall))
        return false;
    errno = ENOMEM;
    return true;
}

bool CallFails(const char* aCall, std::initializer_list<int> aErrors) {
    if (!IsReached(false, aCall) || static_cast<size_t>(s_nError) >= aErrors.size())
        return false;
    errno = aErrors.begin()[s_nError];
    return true;
}

// The caller chooses the type of the result.
template <class Result = int, class... Arguments>
Result Call(const char* aName, std::initializer_list<int> aErrors, long aNumber, Arguments... aArguments) {
    return CallFails(aName, aErrors) ? -1 : static_cast<Result>(syscall(aNumber, aArguments...));
}

}  // namespace

void CCmFaults::Arm(EKind aKind, DWORD aNth, int aError) {
    s_Kind = aKind;
    s_dwNth = aNth;
    s_nError = aError;
    s_dwCalls = 0;
    s_bFired = false;
    s_bArmed = true;
}
void CCmFaults::Disarm() { s_bArmed = false; }
BOOL CCmFaults::HasFired() { return s_bFired; }
void CCmFaults::RecordAt(CPlace* aPlace) {
    void* pFirst;
    backtrace(&pFirst, 1);  // allocates what it needs
    s_pPlace = aPlace;
}

CCmSafeCode::CCmSafeCode(bool aSafe) : m_bBefore(t_bSafe) { t_bSafe = aSafe; }
CCmSafeCode::~CCmSafeCode() { t_bSafe = m_bBefore; }

extern "C" {

void* malloc(size_t aSize) noexcept { return AllocationFails("malloc") ? nullptr : __libc_malloc(aSize); }
void* calloc(size_t aCount, size_t aSize) noexcept {
    return AllocationFails("calloc") ? nullptr : __libc_calloc(aCount, aSize);
}
void* realloc(void* aMemory, size_t aSize) noexcept {
    return AllocationFails("realloc") ? nullptr : __libc_realloc(aMemory, aSize);
}
void* aligned_alloc(size_t aAlignment, size_t aSize) noexcept {
    return AllocationFails("aligned_alloc") ? nullptr : __libc_memalign(aAlignment, aSize);
}
int posix_memalign(void** aMemory, size_t aAlignment, size_t aSize) noexcept {
    *aMemory = AllocationFails("posix_memalign") ? nullptr : __libc_memalign(aAlignment, aSize);
    return *aMemory ? 0 : ENOMEM;
}

int socket(int aFamily, int aType, int aProtocol) noexcept {
    return Call("socket", {EMFILE, ENFILE, ENOBUFS}, SYS_socket, aFamily, aType, aProtocol);
}
int bind(int aFd, const sockaddr* aAddr, socklen_t aLength) noexcept {
    return Call("bind", {EADDRINUSE, EACCES}, SYS_bind, aFd, aAddr, aLength);
}
int listen(int aFd, int aBacklog) noexcept { return Call("listen", {EADDRINUSE}, SYS_listen, aFd, aBacklog); }
int accept4(int aFd, sockaddr* aAddr, socklen_t* aLength, int aFlags) {
    return Call("accept4", {EMFILE, ENOMEM, ECONNABORTED}, SYS_accept4, aFd, aAddr, aLength, aFlags);
}
int connect(int aFd, const sockaddr* aAddr, socklen_t aLength) {
    return Call("connect", {ENOBUFS, EADDRNOTAVAIL, ECONNREFUSED}, SYS_connect, aFd, aAddr, aLength);
}
int getsockname(int aFd, sockaddr* aAddr, socklen_t* aLength) noexcept {
    return Call("getsockname", {ENOBUFS}, SYS_getsockname, aFd, aAddr, aLength);
}
int getpeername(int aFd, sockaddr* aAddr, socklen_t* aLength) noexcept {
    return Call("getpeername", {ENOTCONN}, SYS_getpeername, aFd, aAddr, aLength);
}
int setsockopt(int aFd, int aLevel, int aOption, const void* aValue, socklen_t aLength) noexcept {
    return Call("setsockopt", {ENOBUFS}, SYS_setsockopt, aFd, aLevel, aOption, aValue, aLength);
}
int getsockopt(int aFd, int aLevel, int aOption, void* aValue, socklen_t* aLength) noexcept {
    return Call("getsockopt", {ENOBUFS}, SYS_getsockopt, aFd, aLevel, aOption, aValue, aLength);
}
ssize_t recv(int aFd, void* aBuffer, size_t aSize, int aFlags) {
    return Call<ssize_t>("recv", {ECONNRESET, ENOMEM, EINTR}, SYS_recvfrom, aFd, aBuffer, aSize, aFlags, nullptr, nullptr);
}
ssize_t recvfrom(int aFd, void* aBuffer, size_t aSize, int aFlags, sockaddr* aAddr, socklen_t* aLength) {
    return Call<ssize_t>("recvfrom", {ECONNREFUSED, ENOMEM, EINTR}, SYS_recvfrom, aFd, aBuffer, aSize, aFlags, aAddr, aLength);
}
int recvmmsg(int aFd, mmsghdr* aMessages, unsigned aCount, int aFlags, timespec* aTimeout) {
    return Call("recvmmsg", {ECONNREFUSED, ENOMEM, EINTR}, SYS_recvmmsg, aFd, aMessages, aCount, aFlags, aTimeout);
}
ssize_t send(int aFd, const void* aBuffer, size_t aSize, int aFlags) {
    return Call<ssize_t>("send", {ENOBUFS, ENOMEM, EPIPE}, SYS_sendto, aFd, aBuffer, aSize, aFlags, nullptr, 0);
}
ssize_t sendto(int aFd, const void* aBuffer, size_t aSize, int aFlags, const sockaddr* aAddr, socklen_t aLength) {
    return Call<ssize_t>("sendto", {ENOBUFS, EPERM, ECONNREFUSED}, SYS_sendto, aFd, aBuffer, aSize, aFlags, aAddr, aLength);
}
ssize_t sendmsg(int aFd, const msghdr* aMessage, int aFlags) {
    return Call<ssize_t>("sendmsg", {ENOBUFS, ENOMEM, EPIPE}, SYS_sendmsg, aFd, aMessage, aFlags);
}
int sendmmsg(int aFd, mmsghdr* aMessages, unsigned aCount, int aFlags) {
    return Call("sendmmsg", {ENOBUFS, EPERM, ECONNREFUSED}, SYS_sendmmsg, aFd, aMessages, aCount, aFlags);
}
int epoll_create1(int aFlags) noexcept { return Call("epoll_create1", {EMFILE, ENFILE, ENOMEM}, SYS_epoll_create1, aFlags); }
int eventfd(unsigned aCount, int aFlags) noexcept {
    return Call("eventfd", {EMFILE, ENFILE, ENOMEM}, SYS_eventfd2, aCount, aFlags);
}
int timerfd_create(clockid_t aClock, int aFlags) noexcept {
    return Call("timerfd_create", {EMFILE, ENFILE, ENOMEM}, SYS_timerfd_create, aClock, aFlags);
}
// Taking something out of the watch cannot fail.
int epoll_ctl(int aEpoll, int aOperation, int aFd, epoll_event* aEvent) noexcept {
    if (aOperation != EPOLL_CTL_DEL && CallFails("epoll_ctl", {ENOMEM, ENOSPC}))
        return -1;
    return static_cast<int>(syscall(SYS_epoll_ctl, aEpoll, aOperation, aFd, aEvent));
}
int ioctl(int aFd, unsigned long aRequest, ...) noexcept {
    va_list arguments;
    va_start(arguments, aRequest);
    void* pArgument = va_arg(arguments, void*);
    va_end(arguments);
    return Call("ioctl", {ENOMEM}, SYS_ioctl, aFd, aRequest, pArgument);
}

}  // extern "C"
