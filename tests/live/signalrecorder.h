// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QProcess>
#include <QString>

#include <csignal>

/**
 * A process in a session's directory that blocks the signals of an agent. A blocked signal shows as pending as soon as
 * it is sent, so a test sees at once which signals were sent and which were not. Used on one thread. The destructor
 * ends the process.
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
    Q_DISABLE_COPY_MOVE(SignalRecorder)

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
