// SPDX-License-Identifier: MIT
#pragma once

#include "client/server/serverprocess.h"

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

/** A process with the server's name that does nothing, and with its own environment. */
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
        // Right after the start, /proc still shows no environment.
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

/** The smallest environment of a server of @p user. */
[[nodiscard]] inline QProcessEnvironment serverEnvironment(const QString &user, const QString &path)
{
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("USER"), user);
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/home/of/it"));
    environment.insert(QStringLiteral("PATH"), path);
    return environment;
}
