// SPDX-License-Identifier: MIT
#pragma once

#include "agent/applications/spawn.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>

class ChildWatcher;

/** Where and how a session's applications run. A value. */
struct ApplicationSettings
{
    QList<QByteArray> environment;
    mode_t fileCreationMask = 022;
    QByteArray workingDirectory; ///< the user's home, because the session directory is removed with the session
    QString logPath;             ///< the file that takes their output
};

/**
 * Starts the applications of a session and logs how they end. It keeps no list of what they start in turn: Ending finds
 * that among our descendants. Owned by the agent, lives on the main thread.
 */
class ApplicationRunner final : public QObject
{
    Q_OBJECT

public:
    /** @param watcher  outlives this object */
    ApplicationRunner(ApplicationSettings settings, ChildWatcher *watcher, QObject *parent = nullptr);

    /**
     * Runs @p commandLine through the shell.
     *
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool run(const QByteArray &commandLine, QString *error);

    /**
     * Runs a program without a shell.
     *
     * @param arguments  the path of the program, then its arguments
     * @param error      set only on failure: one sentence
     * @return its pid; -1 on failure
     */
    [[nodiscard]] pid_t runProgram(const QList<QByteArray> &arguments, QString *error);

private:
    void Watcher_ended(pid_t pid, int status);

    ApplicationSettings settings;
    QSet<pid_t> running;
};
