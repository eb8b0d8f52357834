// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

/**
 * Starts the server's program, which goes into the background by itself once it serves. Any number of these may
 * run at the same time: the server makes sure that one of it stays. Used on the main thread.
 */
class ServerLauncher : public QObject
{
    Q_OBJECT

public:
    explicit ServerLauncher(QObject *parent = nullptr);
    ~ServerLauncher() override;

    /**
     * Makes the user path, private to the user, and starts the program that stands beside this one or else on the
     * search path, with the bundled agent at the end of its own search path.
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool start(const QString &userPath, QString *error);

    [[nodiscard]] bool isRunning() const { return process.state() != QProcess::NotRunning; }

    /** What the program had to say about its start, which is nothing when all is well. */
    [[nodiscard]] QString messages() const { return text; }

private:
    void Process_readyRead();

    QProcess process;
    QString text;
};

/** Where the programs stand that only other programs run; relative to this one, as built and as installed. */
[[nodiscard]] QString bundledProgramsPath();

/** The server's program; an empty text when there is none. */
[[nodiscard]] QString serverProgramPath();

/** The search path that a server started by us gets: the user's own programs come before the bundled agent. */
[[nodiscard]] QString serverSearchPath();

/** Creates @p path with all its missing parents, which only the user can enter. */
[[nodiscard]] bool makePrivatePath(const QString &path, QString *error);
