// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverprocess.h"

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

/** A process that goes by the name of the server and does nothing, with an environment of its own. */
class Impostor
{
public:
    explicit Impostor(const QProcessEnvironment &environment)
    {
        const QString path = folder.filePath(QStringLiteral("zarvo_server"));
        QFile::link(QStandardPaths::findExecutable(QStringLiteral("sleep")), path);
        process.setProcessEnvironment(environment);
        process.start(path, {QStringLiteral("1000")});
        process.waitForStarted();
        // The system calls it started a moment before it shows its environment.
        if (!QTest::qWaitFor([this] { return environmentOf(pid(), QStringLiteral("PATH")).has_value(); }, 30000)) {
            qFatal("The process shows no environment");
        }
    }
    ~Impostor()
    {
        process.kill();
        process.waitForFinished();
    }
    Q_DISABLE_COPY_MOVE(Impostor)

    [[nodiscard]] qint64 pid() const { return process.processId(); }

private:
    QTemporaryDir folder;
    QProcess process;
};

/** An environment with nothing but what a server of that user has. */
[[nodiscard]] inline QProcessEnvironment serverEnvironment(const QString &user, const QString &path)
{
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("USER"), user);
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/home/of/it"));
    environment.insert(QStringLiteral("PATH"), path);
    return environment;
}
