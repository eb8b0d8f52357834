// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>

/** One run of a program to its end, with a deadline and a limit to what is kept of its output. Main thread. */
class ChildRun
{
public:
    /**
     * Runs @p command with its standard input on /dev/null; kills it when the time is over.
     * @return true when it ended by itself, with whatever exit code
     */
    [[nodiscard]] bool run(const QStringList &command, std::chrono::milliseconds timeout);

    [[nodiscard]] int exitCode() const { return code; }
    [[nodiscard]] bool timedOut() const { return late; }
    [[nodiscard]] QByteArray output() const { return standardOutput; }
    [[nodiscard]] QString errorOutput() const { return QString::fromLocal8Bit(standardError); }

    /** Why run() returned false: part of a sentence. */
    [[nodiscard]] QString problem() const { return reason; }

private:
    QByteArray standardOutput;
    QByteArray standardError;
    QString reason;
    int code = -1;
    bool late = false;
};
