// SPDX-License-Identifier: MIT
#include "support/standardstreams.h"
#include "tests/testmain.h"

#include <QTest>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool isNullDevice(int descriptor)
{
    struct stat null = {};
    struct stat status = {};
    return ::stat("/dev/null", &null) == 0 && ::fstat(descriptor, &status) == 0 && status.st_rdev == null.st_rdev &&
           S_ISCHR(status.st_mode);
}

/** In a child process. @param closed  a bit for each stream */
bool areOpenedInChild(int closed)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const int file = ::memfd_create("stream", 0);
        for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
            ::dup2(file, stream);
        }
        for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
            if ((closed >> stream & 1) != 0) {
                ::close(stream);
            }
        }
        ensureStandardStreams();
        bool isRight = true;
        for (int stream = 0; stream <= STDERR_FILENO; ++stream) {
            isRight = isRight && isNullDevice(stream) == ((closed >> stream & 1) != 0);
        }
        ::_exit(isRight ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

class StandardStreamsTest final : public QObject
{
    Q_OBJECT

private slots:
    void closedStreamsBecomeTheNullDevice()
    {
        for (int closed = 0; closed < 8; ++closed) {
            QVERIFY2(areOpenedInChild(closed), qPrintable(QString::number(closed)));
        }
    }

    void noFurtherDescriptorIsLeftOpen()
    {
        const int before = ::dup(STDERR_FILENO);
        ::close(before);
        ensureStandardStreams();
        const int after = ::dup(STDERR_FILENO);
        ::close(after);
        QCOMPARE(after, before);
    }
};

ZARVO_TEST(StandardStreamsTest)
#include "tst_standardstreams.moc"
