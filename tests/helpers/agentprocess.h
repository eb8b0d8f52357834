// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QProcess>
#include <QString>

#include <csignal>

/**
 * A process that plays a session's agent: a child of the test that works in the session's directory. The constructor
 * starts it, the destructor ends it. Used on one thread.
 */
class AgentProcess final
{
public:
    /** @param script  run by the shell; by default the process sleeps */
    explicit AgentProcess(const QString &workingDirectory,
                          const QString &script = QStringLiteral("exec /bin/sleep 1000"))
    {
        process.setWorkingDirectory(workingDirectory);
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(QProcess::nullDevice());
        process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
        if (!process.waitForStarted(-1)) {
            qFatal("Failed to start the shell");
        }
        startedPid = static_cast<qint32>(process.processId());
    }
    ~AgentProcess() { end(); }
    Q_DISABLE_COPY_MOVE(AgentProcess)

    /** The pid, also after the process has ended. */
    [[nodiscard]] qint32 pid() const { return startedPid; }

    /** Ends the process and waits for its end. Its pid is free afterwards. */
    void end()
    {
        process.kill();
        process.waitForFinished(-1);
    }

    /** Ends the process and leaves a zombie. */
    void endUnnoticed() const { ::kill(startedPid, SIGKILL); }

private:
    QProcess process;
    qint32 startedPid = 0;
};

/**
 * The script of an agent that reacts to signals. After each reaction it writes a line into the file "signals". It ends
 * when its file "alive" is removed.
 */
[[nodiscard]] inline QString agentScript(const QString &preparation, const QString &onUsr1, const QString &onUsr2,
                                         const QString &onTerm)
{
    return QStringLiteral("exec >/dev/null 2>&1\n"
                          "PATH=/usr/bin:/bin\n"
                          "usr1() { %2\n echo USR1 >> signals; }\n"
                          "usr2() { %3\n echo USR2 >> signals; }\n"
                          "term() { %4\n echo TERM >> signals; }\n"
                          "trap usr1 USR1; trap usr2 USR2; trap term TERM\n"
                          "echo > alive\n"
                          "printf %s $$ > server_pid.new; mv server_pid.new server_pid\n"
                          "%1\n"
                          "while [ -e alive ]; do sleep 0.5 & wait $!; done\n")
        .arg(preparation, onUsr1, onUsr2, onTerm);
}

/** The line of a script that makes an agent report this state from now on. */
[[nodiscard]] inline QString tellState(const QString &state)
{
    return QStringLiteral("printf %s '%1' > state.new; mv state.new state").arg(state);
}

/** The line of a script that ends an agent with this exit code, which it writes down. */
[[nodiscard]] inline QString exitWith(int exitCode)
{
    return QStringLiteral("echo TERM >> signals; printf %1 > server_exit; exit %1").arg(exitCode);
}
