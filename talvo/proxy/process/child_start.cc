#include "talvo/proxy/process/child_start.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#ifndef CLONE_PIDFD
#define CLONE_PIDFD 0x00001000
#endif

// The C library's clone() by its other name. A sanitizer takes the place of the first one, and takes every call for a fork: it
// would mark the memory that the child shares as that of a forked process.
extern "C" int __clone(int (*aRun)(void*), void* aStack, int aFlags, void* aArgument, ...);

namespace talvo {

namespace {

constexpr int FIRST_TO_CLOSE = 3;
constexpr rlim_t MAX_TO_CLOSE = 1 << 20;  // descriptors to close one by one, on a kernel without close_range
constexpr size_t STACK_SIZE = 64 * 1024;  // the child's until its program runs

// The child reads these in the memory of its parent, whose thread waits meanwhile.
struct CStart {
    const char* m_szPath;
    char* const* m_pArguments;
    char* const* m_pEnvironment;
    HANDLE m_Handles[3];  // of the parent, for the child's first three
    pid_t m_Parent;
    int m_nError;  // of the child; 0: the program runs
};

// The child shares its parent's memory, errno included, until its program runs. So it calls the kernel directly: a function of
// the C library could take a lock, and a sanitizer would record the call as one of the parent's.
template <class... Arguments>
long Call(long aNumber, Arguments... aArguments) {
    return syscall(aNumber, aArguments...);
}

// Blocked signals stay blocked in a new program, and so do ignored ones. The kernel's forms of the default action and of the
// empty set are zeros.
void ResetSignals() {
    constexpr unsigned long ZEROS[8] = {};
    constexpr size_t SET_SIZE = 8;
    for (int nSignal = 1; nSignal < NSIG; ++nSignal)
        Call(SYS_rt_sigaction, nSignal, ZEROS, nullptr, SET_SIZE);  // the kernel refuses SIGKILL and SIGSTOP
    Call(SYS_rt_sigprocmask, SIG_SETMASK, ZEROS, nullptr, SET_SIZE);
}

BOOL SetHandles(CStart& aStart) {
    // First out of the way of the three, of which the host may have closed some.
    for (HANDLE& fd : aStart.m_Handles) {
        fd = static_cast<HANDLE>(Call(SYS_fcntl, fd, F_DUPFD, FIRST_TO_CLOSE));
        if (fd == CM_INVALID_HANDLE)
            return FALSE;
    }
    for (int i = 0; i < FIRST_TO_CLOSE; ++i) {
        if (Call(SYS_dup3, aStart.m_Handles[i], i, 0) == -1)
            return FALSE;
    }
    if (Call(SYS_close_range, FIRST_TO_CLOSE, ~0u, 0) == 0)
        return TRUE;
    rlimit limit{};
    Call(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, &limit);
    for (rlim_t fd = FIRST_TO_CLOSE; fd < std::min(limit.rlim_cur, MAX_TO_CLOSE); ++fd)
        Call(SYS_close, fd);
    return TRUE;
}

int RunChild(void* aStart) {
    CStart& start = *static_cast<CStart*>(aStart);
    ResetSignals();
    Call(SYS_setsid);
    Call(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (Call(SYS_getppid) == start.m_Parent && SetHandles(start) && Call(SYS_chdir, "/") == 0)
        Call(SYS_execve, start.m_szPath, start.m_pArguments, start.m_pEnvironment);
    start.m_nError = errno ? errno : ECHILD;
    Call(SYS_exit_group, 127);
    return 127;
}

// The stack of the child, in pages that no thread uses.
class CStack {
public:
    CStack() : m_pBase(mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
    ~CStack() {
        if (m_pBase != MAP_FAILED)
            munmap(m_pBase, STACK_SIZE);
    }
    CStack(const CStack&) = delete;
    CStack& operator=(const CStack&) = delete;

    void* GetTop() const { return m_pBase == MAP_FAILED ? nullptr : static_cast<char*>(m_pBase) + STACK_SIZE; }

private:
    void* m_pBase;
};

// No signal handler of the host may run in the child, in the memory of the parent.
class CNoSignals {
public:
    CNoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~CNoSignals() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CNoSignals(const CNoSignals&) = delete;
    CNoSignals& operator=(const CNoSignals&) = delete;

private:
    sigset_t m_Before;
};

// Without CLONE_SIGHAND the child has handlers of its own, and without CLONE_FILES descriptors. The end signal 0 keeps a child
// that could not load its program from the host's wait functions; a loaded program has SIGCHLD.
int Clone(CStart& aStart, HANDLE& aProcess) {
    const CStack stack;
    if (!stack.GetTop())
        return errno;
    errno = 0;
    int fdProcess = CM_INVALID_HANDLE;
    int nCloned = 0;
    {
        const CNoSignals blocked;
        nCloned = __clone(&RunChild, stack.GetTop(), CLONE_VM | CLONE_VFORK | CLONE_PIDFD, &aStart, &fdProcess);
    }
    if (nCloned == -1)
        return errno;
    aProcess = fdProcess;
    return aStart.m_nError;
}

std::vector<char*> PointersTo(const char* aFirst, const std::vector<CCmString>& aTexts) {
    std::vector<char*> pointers;
    if (aFirst)
        pointers.push_back(const_cast<char*>(aFirst));
    for (const CCmString& strText : aTexts)
        pointers.push_back(const_cast<char*>(strText.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

int StartChild(const CChildProgram& aProgram, HANDLE& aProcess) {
    const auto arguments = PointersTo(aProgram.m_strPath.c_str(), aProgram.m_Arguments);
    const auto environment = PointersTo(nullptr, aProgram.m_Environment);
    const HANDLE fdNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fdNull == CM_INVALID_HANDLE)
        return errno;
    const auto orNull = [fdNull](HANDLE aFd) { return aFd == CM_INVALID_HANDLE ? fdNull : aFd; };
    CStart start{aProgram.m_strPath.c_str(),
                 arguments.data(),
                 environment.data(),
                 {orNull(aProgram.m_Input), orNull(aProgram.m_Output), fdNull},
                 getpid(),
                 0};
    HANDLE fdProcess = CM_INVALID_HANDLE;
    const int nError = Clone(start, fdProcess);
    close(fdNull);
    if (nError != 0 && fdProcess != CM_INVALID_HANDLE) {
        siginfo_t info{};
        waitid(P_PIDFD, static_cast<id_t>(fdProcess), &info, WEXITED | __WALL);  // it has ended
        close(fdProcess);
        return nError;
    }
    aProcess = fdProcess;
    return nError;
}

}  // namespace talvo
