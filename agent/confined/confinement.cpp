// SPDX-License-Identifier: MIT
#include "agent/confined/confinement.h"

#include "agent/confined/doorpackets.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <span>

#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using FilterPtr = std::unique_ptr<void, decltype(&seccomp_release)>;

/** Reading and writing what is open, waiting, memory, the clock, and the end. */
constexpr std::array kVisitorCalls = {
    SCMP_SYS(read),         SCMP_SYS(write),          SCMP_SYS(readv),         SCMP_SYS(writev),
    SCMP_SYS(recvmsg),      SCMP_SYS(sendmsg),        SCMP_SYS(recvfrom),      SCMP_SYS(sendto),
    SCMP_SYS(poll),         SCMP_SYS(ppoll),          SCMP_SYS(close),         SCMP_SYS(shutdown),
    SCMP_SYS(brk),          SCMP_SYS(munmap),         SCMP_SYS(mremap),        SCMP_SYS(madvise),
    SCMP_SYS(futex),        SCMP_SYS(getrandom),      SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday),
    SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),  SCMP_SYS(sigaltstack),
    SCMP_SYS(getpid),       SCMP_SYS(gettid),         SCMP_SYS(sched_yield),   SCMP_SYS(restart_syscall),
    SCMP_SYS(exit),         SCMP_SYS(exit_group),
};

/** What the servant needs beside these: processes, their end, and the visitor's own confinement. */
constexpr std::array kServantCalls = {
    SCMP_SYS(clone),       SCMP_SYS(clone3),          SCMP_SYS(fork), SCMP_SYS(wait4), SCMP_SYS(kill),
    SCMP_SYS(getppid),     SCMP_SYS(set_robust_list), SCMP_SYS(rseq), SCMP_SYS(prctl), SCMP_SYS(seccomp),
    SCMP_SYS(close_range), SCMP_SYS(waitid),
};

bool allow(void *filter, std::span<const int> calls)
{
    for (const int call : calls) {
        if (seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) != 0) {
            return false;
        }
    }
    return true;
}

/** Memory that may be executed would let an attacker run code of his own. */
bool allowDataMemory(void *filter)
{
    // Both take the protection as their third argument. The library's own macro is no C++ for every compiler.
    constexpr scmp_arg_cmp kIsNotExecutable = {2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0};
    for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mprotect)}) {
        if (seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 1, kIsNotExecutable) != 0) {
            return false;
        }
    }
    return true;
}

/** Every other call fails with EPERM. Empty if this machine cannot make the filter. */
std::vector<sock_filter> makeFilter(bool isServant)
{
    const FilterPtr filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)), &seccomp_release);
    if (!filter || !allow(filter.get(), kVisitorCalls) || !allowDataMemory(filter.get()) ||
        (isServant && !allow(filter.get(), kServantCalls))) {
        return {};
    }
    const int file = ::memfd_create("filter", MFD_CLOEXEC);
    std::vector<sock_filter> program;
    if (seccomp_export_bpf(filter.get(), file) == 0) {
        const off_t size = ::lseek(file, 0, SEEK_END);
        program.resize(static_cast<std::size_t>(size) / sizeof(sock_filter));
        if (::pread(file, program.data(), static_cast<std::size_t>(size), 0) != size) {
            program.clear();
        }
    }
    ::close(file);
    return program;
}

bool installFilter(const std::vector<sock_filter> &program)
{
    sock_fprog filter = {static_cast<unsigned short>(program.size()), const_cast<sock_filter *>(program.data())};
    return !program.empty() && ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &filter) == 0;
}

/** The kernel's structure in its present form; the header of the system may know a shorter one. */
struct RulesetAttributes
{
    std::uint64_t files;
    std::uint64_t network;
    std::uint64_t scope;
};

/** Forbids all that this version of Landlock knows, by a set of rules that allows nothing. */
bool hideFiles()
{
    const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 1) {
        return false;
    }
    // The rights of versions 1, 2 (link elsewhere), 3 (truncate) and 5 (device control) are the lowest 13 to 16 bits.
    const int fileRights = version >= 5 ? 16 : version >= 3 ? 15 : version == 2 ? 14 : 13;
    RulesetAttributes attributes = {(std::uint64_t{1} << fileRights) - 1, 0, 0};
    std::size_t size = sizeof attributes.files;
    if (version >= 4) {
        attributes.network = 3; // bind and connect TCP sockets
        size += sizeof attributes.network;
    }
    if (version >= 6) {
        attributes.scope = 3; // abstract sockets and processes outside
        size += sizeof attributes.scope;
    }
    const long ruleset = ::syscall(SYS_landlock_create_ruleset, &attributes, size, 0);
    if (ruleset < 0) {
        return false;
    }
    const bool isHidden = ::syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
    ::close(static_cast<int>(ruleset));
    return isHidden;
}

void limit(__rlimit_resource resource, rlim_t most)
{
    const rlimit limits = {most, most};
    ::setrlimit(resource, &limits);
}

} // namespace

Confinement::Confinement()
    : servantFilter(makeFilter(true))
    , visitorFilter(makeFilter(false))
{
}

unsigned char Confinement::confineServant() const
{
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_FSIZE, 0);
    ::prctl(PR_SET_DUMPABLE, 0);
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return 0; // without it the kernel takes neither of the others
    }
    unsigned char done = 0;
    if (hideFiles()) {
        done |= kFilesAreHidden;
    }
    if (installFilter(servantFilter)) {
        done |= kCallsAreFiltered;
    }
    return done;
}

bool Confinement::confineVisitor() const
{
    const bool isServantFiltered = ::prctl(PR_GET_SECCOMP) == SECCOMP_MODE_FILTER;
    return installFilter(visitorFilter) || !isServantFiltered;
}
