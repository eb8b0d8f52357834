// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

/**
 * Starts the server's program. Its foreground process ends as soon as the server in the background serves. Many
 * programs may start it at the same time: the server's single instance lock lets one of them stay. Used on the main
 * thread.
 */
class ServerLauncher : public QObject
{
    Q_OBJECT

public:
    explicit ServerLauncher(QObject *parent = nullptr);
    ~ServerLauncher() override;

    /**
     * Creates the user path, private to the user. Then starts the zarvo_server that is in the folder of this program,
     * else the one on the search path. The bundled agent is last on the search path that the server gets.
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool start(const QString &userPath, QString *error);

    [[nodiscard]] bool isRunning() const { return process.state() != QProcess::NotRunning; }

    /** What the program wrote to standard error: empty if it started, else the reason. */
    [[nodiscard]] QString messages() const { return text; }

private:
    void Process_readyRead();

    QProcess process;
    QString text;
};

/** The folder of the bundled agent, relative to this program; the same in a build folder and when installed. */
[[nodiscard]] QString bundledProgramsPath();

/** The path of the server's program; empty if there is none. */
[[nodiscard]] QString serverProgramPath();

/** The search path of a server that we start: ours, then the bundled agent, so an agent of the user's own wins. */
[[nodiscard]] QString serverSearchPath();

/** Creates the directory @p path and its missing parents with mode 0700. */
[[nodiscard]] bool makePrivatePath(const QString &path, QString *error);
