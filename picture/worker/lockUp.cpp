#include "lockUp.h"

#include <linux/capability.h>
#include <linux/close_range.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace pictured {

namespace {

[[noreturn]] void cannot(const std::string& what, int error) {
    throw std::runtime_error("cannot " + what + ": " + std::strerror(error));
}

void limit(decltype(RLIMIT_AS) resource, rlim_t most, const char* what) {
    const rlimit both{most, most};
    if (setrlimit(resource, &both) != 0) {
        cannot(std::string("limit ") + what, errno);
    }
}

// Where a filter forbids even giving them up there are none.
void dropCapabilities() {
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    if (syscall(SYS_capget, &head, sets.data()) != 0) {
        cannot("ask for capabilities", errno);
    }
    const bool has = std::any_of(sets.begin(), sets.end(), [](const __user_cap_data_struct& set) {
        return (set.effective | set.permitted | set.inheritable) != 0;
    });
    sets.fill({});
    if (has && syscall(SYS_capset, &head, sets.data()) != 0) {
        cannot("drop capabilities", errno);
    }
}

struct FreeFilter {
    void operator()(void* filter) const {
        seccomp_release(filter);
    }
};
using Filter = std::unique_ptr<void, FreeFilter>;

template <typename... Conditions>
void allow(const Filter& filter, int call, Conditions... conditions) {
    // Calls that this processor does not have are no fault.
    const int error =
        seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, call, sizeof...(conditions), conditions...);
    if (error != 0 && error != -EDOM) {
        cannot("make a filter of system calls", -error);
    }
}

void filterCalls(int socket) {
    const Filter filter(seccomp_init(SCMP_ACT_KILL_PROCESS));
    if (!filter) {
        cannot("make a filter of system calls", ENOMEM);
    }
    const auto number = static_cast<scmp_datum_t>(socket);
    for (const int call : {SCMP_SYS(read), SCMP_SYS(write)}) {
        allow(filter, call, SCMP_A0_32(SCMP_CMP_EQ, number, 0));
    }
    // Memory that is nobody else's, and nothing that could be run.
    for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mmap2)}) {
        allow(filter, call, SCMP_A2_32(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0),
              SCMP_A3_32(SCMP_CMP_MASKED_EQ, MAP_ANONYMOUS | MAP_PRIVATE | MAP_SHARED,
                         MAP_ANONYMOUS | MAP_PRIVATE));
    }
    allow(filter, SCMP_SYS(mprotect), SCMP_A2_32(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0));
    for (const int call : {SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(brk), SCMP_SYS(madvise),
                           // Locks within the process, the clock, random numbers for the allocator.
                           SCMP_SYS(futex), SCMP_SYS(futex_time64), SCMP_SYS(clock_gettime),
                           SCMP_SYS(clock_gettime64), SCMP_SYS(gettimeofday), SCMP_SYS(getrandom),
                           // The end, by itself or by abort().
                           SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(rt_sigprocmask),
                           SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigreturn), SCMP_SYS(sigreturn),
                           SCMP_SYS(restart_syscall), SCMP_SYS(getpid), SCMP_SYS(gettid)}) {
        allow(filter, call);
    }
    allow(filter, SCMP_SYS(tgkill), SCMP_A0_32(SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()), 0));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // What the sanitizers do besides.
    allow(filter, SCMP_SYS(sched_yield));
    allow(filter, SCMP_SYS(sigaltstack));
    allow(filter, SCMP_SYS(write), SCMP_A0_32(SCMP_CMP_EQ, STDERR_FILENO, 0));
#endif
    if (const int error = seccomp_load(filter.get()); error != 0) {
        cannot("have the kernel filter system calls", -error);
    }
}

}  // namespace

void lockUp(int socket) {
    const pid_t parent = getppid();
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        throw std::runtime_error("the parent is gone");
    }
    // What is above and below the socket; standard error stays for what ends a program, and may not be
    // written later.
    if ((socket > STDERR_FILENO + 1 &&
         close_range(STDERR_FILENO + 1, static_cast<unsigned>(socket) - 1, 0) != 0) ||
        close_range(static_cast<unsigned>(socket) + 1, ~0U, 0) != 0) {
        cannot("close descriptors", errno);
    }
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    limit(RLIMIT_CORE, 0, "memory images");
    limit(RLIMIT_FSIZE, 0, "files");
    limit(RLIMIT_NOFILE, 0, "descriptors");
    limit(RLIMIT_NPROC, 0, "processes");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these take terabytes of addresses
    limit(RLIMIT_DATA, kWorkerDataBytes, "memory");
    limit(RLIMIT_AS, kWorkerAddressBytes, "addresses");
#endif
    dropCapabilities();
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
        cannot("give up privileges", errno);
    }
    filterCalls(socket);
}

}  // namespace pictured
