#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <qmtranscode/sandbox/Sandbox.h>
#include <seccomp.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <initializer_list>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QM_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QM_SANITIZED
#endif
#endif

namespace android::qmmediaeditor::cli {

namespace {

// Rights that Debian's header does not define yet.
constexpr uint64_t kRefer = UINT64_C(1) << 13;        // ABI 2
constexpr uint64_t kTruncate = UINT64_C(1) << 14;     // ABI 3
constexpr uint64_t kIoctlDevice = UINT64_C(1) << 15;  // ABI 5

constexpr uint64_t kReadLibraries =
    LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;

// All rights of this Landlock ABI. They are denied except where a rule allows them.
uint64_t fileRights(long abi) {
    uint64_t rights = (UINT64_C(1) << 13) - 1;
    if (abi >= 2) rights |= kRefer;
    if (abi >= 3) rights |= kTruncate;
    if (abi >= 5) rights |= kIoctlDevice;
    return rights;
}

void allowReading(int ruleset, const char* path) {
    const int directory = open(path, O_PATH | O_CLOEXEC);
    if (directory < 0) return;
    landlock_path_beneath_attr rule{};
    rule.allowed_access = kReadLibraries;
    rule.parent_fd = directory;
    syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    close(directory);
}

void restrictFiles() {
    const long abi =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (abi < 1) return;
    landlock_ruleset_attr attributes{};
    attributes.handled_access_fs = fileRights(abi);
    const auto ruleset =
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0));
    if (ruleset < 0) return;
    for (const char* path : {"/lib", "/lib64", "/usr/lib", "/usr/lib64"}) {
        allowReading(ruleset, path);
    }
#ifdef QM_SANITIZED
    // A sanitizer reads the memory map, its suppressions, and the symbols of what it reports.
    allowReading(ruleset, "/");
#endif
    syscall(SYS_landlock_restrict_self, ruleset, 0);
    close(ruleset);
}

void dropCapabilities() {
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    syscall(SYS_capset, &header, data);
}

#ifndef QM_SANITIZED
// Memory, threads, clocks, signals to itself, and operations on open descriptors.
constexpr int kAllowed[] = {
    SCMP_SYS(access),
    SCMP_SYS(arch_prctl),
    SCMP_SYS(brk),
    SCMP_SYS(clock_getres),
    SCMP_SYS(clock_gettime),
    SCMP_SYS(clock_nanosleep),
    SCMP_SYS(close),
    SCMP_SYS(copy_file_range),
    SCMP_SYS(dup),
    SCMP_SYS(dup2),
    SCMP_SYS(dup3),
    SCMP_SYS(eventfd2),
    SCMP_SYS(exit),
    SCMP_SYS(exit_group),
    SCMP_SYS(faccessat),
    SCMP_SYS(faccessat2),
    SCMP_SYS(fadvise64),
    SCMP_SYS(fallocate),
    SCMP_SYS(fcntl),
    SCMP_SYS(fdatasync),
    SCMP_SYS(fstat),
    SCMP_SYS(fstatfs),
    SCMP_SYS(fsync),
    SCMP_SYS(ftruncate),
    SCMP_SYS(futex),
    SCMP_SYS(futex_waitv),
    SCMP_SYS(getcpu),
    SCMP_SYS(getcwd),
    SCMP_SYS(getegid),
    SCMP_SYS(geteuid),
    SCMP_SYS(getgid),
    SCMP_SYS(getpid),
    SCMP_SYS(getppid),
    SCMP_SYS(getpriority),
    SCMP_SYS(getrandom),
    SCMP_SYS(getrlimit),
    SCMP_SYS(getrusage),
    SCMP_SYS(gettid),
    SCMP_SYS(gettimeofday),
    SCMP_SYS(getuid),
    SCMP_SYS(lseek),
    SCMP_SYS(madvise),
    SCMP_SYS(mbind),
    SCMP_SYS(membarrier),
    SCMP_SYS(memfd_create),
    SCMP_SYS(mincore),
    SCMP_SYS(mlock),
    SCMP_SYS(mmap),
    SCMP_SYS(mprotect),
    SCMP_SYS(mremap),
    SCMP_SYS(munlock),
    SCMP_SYS(munmap),
    SCMP_SYS(nanosleep),
    SCMP_SYS(newfstatat),
    SCMP_SYS(pipe2),
    SCMP_SYS(poll),
    SCMP_SYS(ppoll),
    SCMP_SYS(prctl),
    SCMP_SYS(pread64),
    SCMP_SYS(preadv),
    SCMP_SYS(prlimit64),
    SCMP_SYS(pselect6),
    SCMP_SYS(pwrite64),
    SCMP_SYS(pwritev),
    SCMP_SYS(read),
    SCMP_SYS(readlink),
    SCMP_SYS(readlinkat),
    SCMP_SYS(readv),
    SCMP_SYS(recvfrom),
    SCMP_SYS(recvmsg),
    SCMP_SYS(restart_syscall),
    SCMP_SYS(rseq),
    SCMP_SYS(rt_sigaction),
    SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn),
    SCMP_SYS(rt_sigtimedwait),
    SCMP_SYS(sched_get_priority_max),
    SCMP_SYS(sched_get_priority_min),
    SCMP_SYS(sched_getaffinity),
    SCMP_SYS(sched_getparam),
    SCMP_SYS(sched_getscheduler),
    SCMP_SYS(sched_setaffinity),
    SCMP_SYS(sched_setscheduler),
    SCMP_SYS(sched_yield),
    SCMP_SYS(sendmsg),
    SCMP_SYS(sendto),
    SCMP_SYS(set_robust_list),
    SCMP_SYS(set_tid_address),
    SCMP_SYS(setpriority),
    SCMP_SYS(shutdown),
    SCMP_SYS(sigaltstack),
    SCMP_SYS(stat),
    SCMP_SYS(statx),
    SCMP_SYS(sysinfo),
    SCMP_SYS(uname),
    SCMP_SYS(write),
    SCMP_SYS(writev),
};

// False when memory is exhausted.
bool restrictCalls() {
    const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
    if (filter == nullptr) return false;
    // Other errors mean that the system call does not exist on this architecture.
    bool hasMemory = true;
    const auto check = [&hasMemory](int result) { hasMemory = hasMemory && result != -ENOMEM; };
    for (const int call : kAllowed) check(seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0));
    // The C library then falls back to clone, whose flags a filter can read: threads are allowed,
    // processes are not.
    check(seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0));
    constexpr uint64_t kThread = 0x00010000;
    check(seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(clone), 1,
                           SCMP_A0(SCMP_CMP_MASKED_EQ, kThread, kThread)));
    for (const int call : {SCMP_SYS(tgkill), SCMP_SYS(kill)}) {
        check(seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 1,
                               SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()))));
    }
    // Libraries are opened for reading.
    constexpr uint64_t kChanges = O_ACCMODE | O_CREAT | O_TRUNC;
    check(seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(openat), 1,
                           SCMP_A2(SCMP_CMP_MASKED_EQ, kChanges, O_RDONLY)));
    check(seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(open), 1,
                           SCMP_A1(SCMP_CMP_MASKED_EQ, kChanges, O_RDONLY)));
    if (hasMemory) check(seccomp_load(filter));
    seccomp_release(filter);
    return hasMemory;
}
#endif

}  // namespace

bool enterSandbox() {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    restrictFiles();
    dropCapabilities();
#ifdef QM_SANITIZED
    return true;
#else
    return restrictCalls();
#endif
}

}  // namespace android::qmmediaeditor::cli
