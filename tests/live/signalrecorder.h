// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QProcess>
#include <QString>

#include <csignal>

/**
 * A process in a session's directory that takes note of the signals of an agent and does nothing about them:
 * they are blocked, so that each is there to be seen as soon as it was sent, and one that was not sent is
 * known not to come. Used on one thread; gone when the destructor returns.
 */
class SignalRecorder final
{
public:
    explicit SignalRecorder(const QString &workingDirectory)
    {
        process.setWorkingDirectory(workingDirectory);
        process.setChildProcessModifier([] {
            sigset_t blocked;
            ::sigemptyset(&blocked);
            ::sigaddset(&blocked, SIGUSR1);
            ::sigaddset(&blocked, SIGUSR2);
            ::sigaddset(&blocked, SIGTERM);
            ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
        });
        process.start(QStringLiteral("/bin/sleep"), {QStringLiteral("1000")});
        if (!process.waitForStarted(-1)) {
            qFatal("Failed to start sleep");
        }
    }
    ~SignalRecorder()
    {
        process.kill();
        process.waitForFinished(-1);
    }
    SignalRecorder(const SignalRecorder &) = delete;
    SignalRecorder &operator=(const SignalRecorder &) = delete;

    [[nodiscard]] qint32 pid() const { return static_cast<qint32>(process.processId()); }

    /** The numbers of the signals that were sent, in ascending order. */
    [[nodiscard]] QList<int> received() const
    {
        const QByteArray status = contentOf(QStringLiteral("/proc/%1/status").arg(pid()));
        const qsizetype start = status.indexOf("\nShdPnd:");
        if (start < 0) {
            qFatal("The recorder is gone");
        }
        const qsizetype value = start + 8;
        const quint64 mask = status.mid(value, status.indexOf('\n', value) - value).trimmed().toULongLong(nullptr, 16);
        QList<int> numbers;
        for (int number = 1; number <= 64; ++number) {
            if ((mask >> (number - 1)) & 1U) {
                numbers.append(number);
            }
        }
        return numbers;
    }

private:
    QProcess process;
};
