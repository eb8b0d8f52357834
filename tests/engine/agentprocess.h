// SPDX-License-Identifier: MIT
#pragma once

#include "tests/helpers/files.h"

#include <QProcess>
#include <QString>

#include <csignal>

/**
 * A process that plays a session's agent: a child of the test that works in the session's directory. It has
 * started when the constructor returns and is gone when the destructor does. Used on one thread.
 */
class AgentProcess final
{
public:
    /** @param script  what it does, for the shell; by default it does nothing for long, whatever the search path */
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
    AgentProcess(const AgentProcess &) = delete;
    AgentProcess &operator=(const AgentProcess &) = delete;

    /** Its pid, also after its end. */
    [[nodiscard]] qint32 pid() const { return startedPid; }

    /** Ends it and waits for that; its pid is free from then on. */
    void end()
    {
        process.kill();
        process.waitForFinished(-1);
    }

    /** Ends it and leaves its pid to a process that nobody has asked for the outcome of yet. */
    void endUnnoticed() const { ::kill(startedPid, SIGKILL); }

private:
    QProcess process;
    qint32 startedPid = 0;
};

/**
 * The script of an agent that answers to signals, each of which is noted as a line of the file "signals" after
 * what it causes is done. It ends when its file "alive" goes, at the latest with its directory.
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

/** The line of a script that makes an agent tell this state from now on. */
[[nodiscard]] inline QString tellState(const QString &state)
{
    return QStringLiteral("printf %s '%1' > state.new; mv state.new state").arg(state);
}

/** The line of a script that ends an agent in good order. */
[[nodiscard]] inline QString exitWith(int exitCode)
{
    return QStringLiteral("echo TERM >> signals; printf %1 > server_exit; exit %1").arg(exitCode);
}
