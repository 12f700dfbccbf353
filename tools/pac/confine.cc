#include "tools/pac/confine.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <vector>

namespace pac {

namespace {

constexpr rlim_t MAX_ADDRESSES = 256u << 20;
constexpr rlim_t MAX_STACK = 16u << 20;
constexpr int LESS_URGENT = 10;  // a script that never ends takes a tenth of a processor that its host needs

#if defined __x86_64__
constexpr unsigned ARCHITECTURE = AUDIT_ARCH_X86_64;
#elif defined __aarch64__
constexpr unsigned ARCHITECTURE = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned ARCHITECTURE = 0;  // no filter
#endif

constexpr int ALLOWED[] = {
    SYS_read,  SYS_write, SYS_brk,        SYS_munmap,        SYS_mremap,       SYS_madvise,
    SYS_futex, SYS_exit,  SYS_exit_group, SYS_clock_gettime, SYS_rt_sigreturn,
};

void Limit(__rlimit_resource aResource, rlim_t aMost) {
    rlimit limit{};
    getrlimit(aResource, &limit);
    const rlim_t most = std::min(limit.rlim_max, aMost);
    limit = {most, most};
    setrlimit(aResource, &limit);
}

class Filter {
public:
    void Load(size_t aOffset) { Add(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(aOffset)); }
    void Return(unsigned aVerdict) { Add(BPF_RET | BPF_K, aVerdict); }
    // Skips the next aCount instructions if the loaded value is aValue, or is not.
    void SkipIf(unsigned aValue, unsigned char aCount) {
        m_Code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, aValue, aCount, 0));
    }
    void SkipUnless(unsigned aValue, unsigned char aCount) {
        m_Code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, aValue, 0, aCount));
    }
    void SkipIfAny(unsigned aBits, unsigned char aCount) {
        m_Code.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, aBits, aCount, 0));
    }
    bool Install() {
        const sock_fprog program{static_cast<unsigned short>(m_Code.size()), m_Code.data()};
        return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
    }

private:
    void Add(unsigned aOperation, unsigned aOperand) {
        m_Code.push_back(BPF_STMT(static_cast<unsigned short>(aOperation), aOperand));
    }

    std::vector<sock_filter> m_Code;
};

// Memory may be mapped, but not to be executed. Other calls fail with EPERM, as the C library expects for
// the files of time zones.
bool FilterCalls() {
    if (ARCHITECTURE == 0)
        return false;
    Filter filter;
    filter.Load(offsetof(seccomp_data, arch));
    filter.SkipIf(ARCHITECTURE, 1);
    filter.Return(SECCOMP_RET_KILL_PROCESS);
    filter.Load(offsetof(seccomp_data, nr));
    for (const int nCall : ALLOWED) {
        filter.SkipUnless(static_cast<unsigned>(nCall), 1);
        filter.Return(SECCOMP_RET_ALLOW);
    }
    for (const int nCall : {SYS_mmap, SYS_mprotect}) {
        filter.SkipUnless(static_cast<unsigned>(nCall), 4);
        filter.Load(offsetof(seccomp_data, args) + 2 * sizeof(uint64_t));  // the rights, in the low half
        filter.SkipIfAny(PROT_EXEC, 1);
        filter.Return(SECCOMP_RET_ALLOW);
        filter.Return(SECCOMP_RET_ERRNO | EPERM);
    }
    filter.Return(SECCOMP_RET_ERRNO | EPERM);
    return filter.Install();
}

}  // namespace

bool Confine() {
    std::ignore = nice(LESS_URGENT);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_DUMPABLE, 0);
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    Limit(RLIMIT_AS, MAX_ADDRESSES);
    Limit(RLIMIT_STACK, MAX_STACK);
    for (const auto resource : {RLIMIT_CORE, RLIMIT_FSIZE, RLIMIT_NOFILE, RLIMIT_NPROC})
        Limit(resource, 0);
    return FilterCalls();
}

}  // namespace pac
