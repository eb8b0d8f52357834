// SPDX-License-Identifier: MIT
#pragma once

#include "engine/session.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakeprograms.h"
#include "tests/helpers/files.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <fcntl.h>

/** A line of a script that writes the output of a command into a file beside the program, atomically. */
[[nodiscard]] inline QString record(const QString &name, const QString &command)
{
    return QStringLiteral("%2 > \"${0%/*}/%1.new\"; mv \"${0%/*}/%1.new\" \"${0%/*}/%1\"\n").arg(name, command);
}

/** A program that records its arguments, each in brackets. */
[[nodiscard]] inline QString recordingScript()
{
    return record(QStringLiteral("arguments"), QStringLiteral("printf '[%s]' \"$@\""));
}

/** An xauth that records its arguments, one call per line, and creates the file. */
[[nodiscard]] inline QString xauthScript()
{
    return QStringLiteral("{ printf '[%s]' \"$@\"; echo; } >> \"${0%/*}/xauth_calls\"\n: > \"$2\"\n");
}

/** A program that runs until the file "alive" beside it is removed. */
[[nodiscard]] inline QString lastingScript()
{
    return QStringLiteral(": > \"${0%/*}/alive\"\n") + record(QStringLiteral("pid"), QStringLiteral("printf %s $$")) +
           QStringLiteral("while [ -e \"${0%/*}/alive\" ]; do sleep 0.1; done\n");
}

/**
 * A program that records its descriptors without opening any itself: the shell gets its commands as an argument, and
 * each number is looked up, because listing the directory would open it.
 */
[[nodiscard]] inline QString descriptorsScript()
{
    return QStringLiteral("exec /bin/sh -c '\n"
                          "number=0\n"
                          "while [ $number -lt 256 ]; do\n"
                          "    if [ -e /proc/$$/fd/$number ]; then all=\"$all $number\"; fi\n"
                          "    number=$((number + 1))\n"
                          "done\n"
                          "printf %s \"$all\" > \"${0%/*}/descriptors.new\"\n"
                          "mv \"${0%/*}/descriptors.new\" \"${0%/*}/descriptors\"' \"$0\"\n");
}

/** Hides descriptors that the test program inherited: in a real server no such descriptor exists. */
inline void keepInheritedDescriptors()
{
    const QStringList numbers = QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System);
    for (const QString &number : numbers) {
        bool isNumber = false;
        const int descriptor = number.toInt(&isNumber);
        if (isNumber && descriptor > 2) {
            ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        }
    }
}

/** Whether the process runs. A zombie has no working directory. */
[[nodiscard]] inline bool isRunning(qint32 pid)
{
    return QFile::exists(QStringLiteral("/proc/%1/cwd").arg(pid));
}

/** A folder for a session and programs that record how they are called. For tests of launch.h. */
class LaunchFixture
{
protected:
    void setUp()
    {
        folder = std::make_unique<QTemporaryDir>();
        directory = folder->filePath(QStringLiteral("sessions/C-1"));
        logger = std::make_unique<CollectingLogger>();
        programs = std::make_unique<FakePrograms>();
        programs->add(QStringLiteral("xauth"), xauthScript());
        programs->add(QStringLiteral("start-agent"), recordingScript());
        programs->add(QStringLiteral("start-app"), recordingScript());
    }

    void tearDown()
    {
        programs.reset();
        logger.reset();
        folder.reset();
    }

    [[nodiscard]] QString file(const QString &name) const { return directory + QLatin1Char('/') + name; }
    [[nodiscard]] QStringList files() const
    {
        return QDir(directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }
    [[nodiscard]] QByteArray recorded(const QString &name) const { return contentOf(programs->filePath(name)); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<FakePrograms> programs;
    QString directory;
};
