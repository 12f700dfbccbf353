#include "benchmarks/counts/counters.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <new>

namespace {

using Counter = std::atomic<uint64_t>;
Counter s_Calls, s_Wakes, s_Allocations, s_Copied, s_Locks;
thread_local bool t_bOneReport = false;  // of the last wait

void Add(Counter& aCounter, uint64_t aValue = 1) { aCounter.fetch_add(aValue, std::memory_order_relaxed); }

template <class... Arguments>
long Call(long aNumber, Arguments... aArguments) {
    Add(s_Calls);
    return syscall(aNumber, aArguments...);
}

void* Allocate(size_t aSize) {
    Add(s_Allocations);
    return std::malloc(aSize > 0 ? aSize : 1);
}

}  // namespace

CCounters CCounters::Now() { return {s_Calls, s_Wakes, s_Allocations, s_Copied, s_Locks}; }

void* operator new(size_t aSize) {
    void* pMemory = Allocate(aSize);
    if (!pMemory)
        std::abort();
    return pMemory;
}
void* operator new(size_t aSize, const std::nothrow_t&) noexcept { return Allocate(aSize); }
void* operator new(size_t aSize, std::align_val_t aAlign) {
    Add(s_Allocations);
    void* pMemory = nullptr;
    if (posix_memalign(&pMemory, static_cast<size_t>(aAlign), aSize) != 0)
        std::abort();
    return pMemory;
}
void operator delete(void* aMemory, std::align_val_t) noexcept { std::free(aMemory); }
void operator delete(void* aMemory) noexcept { std::free(aMemory); }
void operator delete(void* aMemory, size_t) noexcept { std::free(aMemory); }

extern "C" {

// The same as without _chk, under a name that no other code uses here.
void* __memcpy_chk(void* aTo, const void* aFrom, size_t aSize, size_t aRoom);
void* __memmove_chk(void* aTo, const void* aFrom, size_t aSize, size_t aRoom);

void* memcpy(void* aTo, const void* aFrom, size_t aSize) {
    Add(s_Copied, aSize);
    return __memcpy_chk(aTo, aFrom, aSize, aSize);
}

void* memmove(void* aTo, const void* aFrom, size_t aSize) {
    Add(s_Copied, aSize);
    return __memmove_chk(aTo, aFrom, aSize, aSize);
}

int pthread_mutex_lock(pthread_mutex_t* aMutex) {
    using Function = int (*)(pthread_mutex_t*);
    static std::atomic<Function> s_Next;  // not a plain static: its initialisation would take a lock
    Function next = s_Next.load(std::memory_order_relaxed);
    if (!next) {
        next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
        s_Next = next;
    }
    Add(s_Locks);
    return next(aMutex);
}

ssize_t recv(int aFd, void* aBuffer, size_t aSize, int aFlags) {
    return Call(SYS_recvfrom, aFd, aBuffer, aSize, aFlags, nullptr, nullptr);
}

ssize_t send(int aFd, const void* aBuffer, size_t aSize, int aFlags) {
    return Call(SYS_sendto, aFd, aBuffer, aSize, aFlags, nullptr, 0);
}

ssize_t sendmsg(int aFd, const msghdr* aMessage, int aFlags) { return Call(SYS_sendmsg, aFd, aMessage, aFlags); }

int accept4(int aFd, sockaddr* aAddr, socklen_t* aLength, int aFlags) {
    return static_cast<int>(Call(SYS_accept4, aFd, aAddr, aLength, aFlags));
}

int setsockopt(int aFd, int aLevel, int aOption, const void* aValue, socklen_t aLength) noexcept {
    return static_cast<int>(Call(SYS_setsockopt, aFd, aLevel, aOption, aValue, aLength));
}

int getsockopt(int aFd, int aLevel, int aOption, void* aValue, socklen_t* aLength) noexcept {
    return static_cast<int>(Call(SYS_getsockopt, aFd, aLevel, aOption, aValue, aLength));
}

int shutdown(int aFd, int aHow) noexcept { return static_cast<int>(Call(SYS_shutdown, aFd, aHow)); }

ssize_t readv(int aFd, const iovec* aIov, int aCount) { return Call(SYS_readv, aFd, aIov, aCount); }

// Of the counted descriptors only the tick of a loop is read in this way. Neither the tick nor a wait that it alone ended
// counts: their number depends on the duration of the test.
ssize_t read(int aFd, void* aBuffer, size_t aSize) {
    if (t_bOneReport)
        s_Wakes.fetch_sub(1, std::memory_order_relaxed);
    return syscall(SYS_read, aFd, aBuffer, aSize);
}

// Sockets are sent to; a thread's eventfd is written.
ssize_t write(int aFd, const void* aBuffer, size_t aSize) {
    Add(s_Wakes);
    return syscall(SYS_write, aFd, aBuffer, aSize);
}

int epoll_ctl(int aEpoll, int aOperation, int aFd, epoll_event* aEvent) noexcept {
    return static_cast<int>(Call(SYS_epoll_ctl, aEpoll, aOperation, aFd, aEvent));
}

// Waits that time out do not count either.
int epoll_wait(int aEpoll, epoll_event* aEvents, int aMost, int aTimeout) {
    const long lReady = syscall(SYS_epoll_pwait, aEpoll, aEvents, aMost, aTimeout, nullptr, 0);
    t_bOneReport = lReady == 1;
    if (lReady != 0 || aTimeout == 0)
        Add(s_Wakes);
    return static_cast<int>(lReady);
}

int ioctl(int aFd, unsigned long aRequest, ...) noexcept {
    va_list arguments;
    va_start(arguments, aRequest);
    void* pArgument = va_arg(arguments, void*);
    va_end(arguments);
    return static_cast<int>(Call(SYS_ioctl, aFd, aRequest, pArgument));
}

}  // extern "C"
