// SPDX-License-Identifier: MIT
#pragma once

#include "contract/sessionid.h"
#include "engine/session.h"
#include "tests/helpers/agentprocess.h"
#include "tests/helpers/agentsocket.h"
#include "tests/helpers/files.h"

#include <QDir>
#include <QFileInfo>
#include <QString>

/** The session id that ends in these digits. */
[[nodiscard]] inline QString testId(int number)
{
    return QStringLiteral("%1").arg(number, 32, 16, QLatin1Char('0'));
}

/** Creates the directory of a session with the files of a start, except the agent's pid. */
inline QString makeSessionDirectory(const QString &root, const QString &id, quint16 display)
{
    const QString directory = sessionDirectory(root, id);
    if (!QDir().mkpath(directory)) {
        qFatal("Failed to make %s", qPrintable(directory));
    }
    putFile(directory + QStringLiteral("/display"), QByteArray::number(display));
    putFile(directory + QStringLiteral("/window_mode"), "desktop");
    putFile(directory + QStringLiteral("/name"), "xterm");
    putFile(directory + QStringLiteral("/info"), "{\n}");
    return directory;
}

/**
 * Kills the agent of a start if it still works in its directory, so that it writes no more files there. It is not a
 * child of the test.
 */
inline void endStartedAgent(const QString &directory)
{
    const qint32 pid = contentOf(directory + QStringLiteral("/monitor_pid")).toInt();
    const QString workingDirectory = QStringLiteral("/proc/%1/cwd").arg(pid);
    const QString path = QFileInfo(directory).canonicalFilePath();
    if (pid <= 0 || path.isEmpty() || QFile::symLinkTarget(workingDirectory) != path) {
        return;
    }
    ::kill(pid, SIGKILL);
    const auto isGone = [&] { return QFile::symLinkTarget(workingDirectory) != path; };
    if (!QTest::qWaitFor(isGone, 20000)) {
        qFatal("The agent does not end");
    }
}

/** The shell commands that an agent runs on each signal. */
struct AgentManner
{
    QString onUsr1 = {};
    QString onUsr2 = {};
    QString onTerm = {};
};

/**
 * A session on disk whose agent runs, answers on its socket with the content of its file "state" and reacts to signals.
 * A store that is created later finds it. Used on one thread.
 */
class LiveSession final
{
public:
    LiveSession(const QString &root, const QString &id, quint16 display, const QString &state,
                const AgentManner &manner = {})
        : directory(makeSessionDirectory(root, id, display))
        , socket(agentSocketPath(display))
        , agent(directory, agentScript(tellState(state), manner.onUsr1, manner.onUsr2, manner.onTerm))
    {
        socket.setStateFile(path(QStringLiteral("state")));
        putFile(path(QStringLiteral("monitor_pid")), QByteArray::number(agent.pid()));
        if (!waitForFile(path(QStringLiteral("server_pid"))) || !waitForFile(path(QStringLiteral("state")))) {
            qFatal("The agent does not come up");
        }
    }

    [[nodiscard]] QString path(const QString &file) const { return directory + QLatin1Char('/') + file; }
    /** The signals that the agent has reacted to, one per line. */
    [[nodiscard]] QByteArray handledSignals() const { return contentOf(path(QStringLiteral("signals"))); }

    const QString directory;

private:
    AgentSocket socket;

public:
    AgentProcess agent;
};
