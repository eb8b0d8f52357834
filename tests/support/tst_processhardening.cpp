// SPDX-License-Identifier: MIT
#include "support/processhardening.h"
#include "tests/testmain.h"

#include <QTest>

#include <functional>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr rlim_t kUserLimit = 4096;

rlimit coreLimit()
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_CORE, &limit);
    return limit;
}

/** Runs the check in a child, whose limits are its own. @return whether it said yes */
bool holdsInChild(const std::function<bool()> &check)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(check() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

void setUserLimit()
{
    rlimit limit = coreLimit();
    limit.rlim_cur = kUserLimit;
    ::setrlimit(RLIMIT_CORE, &limit);
}

} // namespace

class ProcessHardeningTest final : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (coreLimit().rlim_max < kUserLimit) {
            QSKIP("the hard limit on core files leaves no room for the test");
        }
    }

    void onlyTheSoftLimitIsLowered()
    {
        QVERIFY(holdsInChild([] {
            setUserLimit();
            const rlim_t hard = coreLimit().rlim_max;
            disableCoreFiles();
            return coreLimit().rlim_cur == 0 && coreLimit().rlim_max == hard;
        }));
    }

    void childGetsTheUsersLimit()
    {
        QVERIFY(holdsInChild([] {
            setUserLimit();
            disableCoreFiles();
            return holdsInChild([] {
                restoreCoreFiles();
                return coreLimit().rlim_cur == kUserLimit;
            });
        }));
    }

    void limitIsTheUsersWhileChildrenStart()
    {
        QVERIFY(holdsInChild([] {
            setUserLimit();
            disableCoreFiles();
            {
                const CoreFilesForChildren meanwhile;
                if (coreLimit().rlim_cur != kUserLimit) {
                    return false;
                }
            }
            return coreLimit().rlim_cur == 0;
        }));
    }

    // Libraries of ours also run in programs that have not lowered it, such as tests.
    void limitThatWasNotLoweredStays()
    {
        QVERIFY(holdsInChild([] {
            setUserLimit();
            restoreCoreFiles();
            const CoreFilesForChildren meanwhile;
            return coreLimit().rlim_cur == kUserLimit;
        }));
    }

    void inspectionIsDisabled()
    {
        QVERIFY(holdsInChild([] {
            disableInspection();
            return ::prctl(PR_GET_DUMPABLE) == 0;
        }));
    }
};

ZARVO_TEST(ProcessHardeningTest)
#include "tst_processhardening.moc"
