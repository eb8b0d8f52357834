// SPDX-License-Identifier: MIT
#include "support/kernelfeatures.h"
#include "tests/testmain.h"

#include <QTest>

#include <array>
#include <cerrno>
#include <functional>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** Runs the check in a child, because a filter cannot be taken off again. @return whether it said yes */
bool holdsInChild(const std::function<bool()> &check)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(check() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

/** Lets a system call fail as on a kernel that does not have it. @return whether the kernel took the filter */
bool removeSystemCall(unsigned int number)
{
    std::array<sock_filter, 4> rules = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    sock_fprog program = {static_cast<unsigned short>(rules.size()), rules.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace

class KernelFeaturesTest final : public QObject
{
    Q_OBJECT

private slots:
    void filtersAreFoundWhereOneCanBeInstalled()
    {
        const bool isInstalled = holdsInChild([] { return removeSystemCall(SYS_landlock_create_ruleset); });
        QCOMPARE(canFilterSystemCalls(), isInstalled);
    }

    void askingConfinesNothing()
    {
        QVERIFY(holdsInChild([] {
            [[maybe_unused]] const bool filters = canFilterSystemCalls();
            [[maybe_unused]] const bool hides = canHideFiles();
            return ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0 && ::access("/proc/self/exe", X_OK) == 0;
        }));
    }

    void kernelWithoutLandlockIsFound()
    {
        if (!canFilterSystemCalls()) {
            QSKIP("without filters the test cannot play another kernel");
        }
        QVERIFY(holdsInChild([] { return removeSystemCall(SYS_landlock_create_ruleset) && !canHideFiles(); }));
    }

    void kernelWithoutFiltersIsFound()
    {
        if (!canFilterSystemCalls()) {
            QSKIP("without filters the test cannot play another kernel");
        }
        QVERIFY(holdsInChild([] { return removeSystemCall(SYS_seccomp) && !canFilterSystemCalls(); }));
    }
};

ZARVO_TEST(KernelFeaturesTest)

#include "tst_kernelfeatures.moc"
