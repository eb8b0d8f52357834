// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>

/** One run of a program to its end, with a timeout and with bounded output. Used on the main thread. */
class ChildRun
{
public:
    /** Sets what the next run() writes to standard input. Without it, standard input is /dev/null. */
    void setInput(const QByteArray &bytes) { standardInput = bytes; }

    /**
     * Runs @p command. Kills it after the timeout.
     * @return true if it ended by itself, with any exit code
     */
    [[nodiscard]] bool run(const QStringList &command, std::chrono::milliseconds timeout);

    [[nodiscard]] int exitCode() const { return code; }
    [[nodiscard]] bool timedOut() const { return late; }
    [[nodiscard]] QByteArray output() const { return standardOutput; }
    [[nodiscard]] QString errorOutput() const { return QString::fromLocal8Bit(standardError); }

    /** Why run() returned false: a clause without a full stop. */
    [[nodiscard]] QString problem() const { return reason; }

private:
    QByteArray standardInput;
    QByteArray standardOutput;
    QByteArray standardError;
    QString reason;
    int code = -1;
    bool late = false;
};
