// SPDX-License-Identifier: MIT
#pragma once

#include "base/instancerecord.h"

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

/** A process with the server's name that does nothing. The lock files of a server with its environment name it. */
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
        holdLock(environment);
    }
    ~Impostor()
    {
        process.kill();
        process.waitForFinished();
        ::unlink(lockPath.constData());
        ::close(lock);
    }
    Q_DISABLE_COPY_MOVE(Impostor)

    [[nodiscard]] qint64 pid() const { return process.processId(); }

private:
    /** A random name, because a server has locked the usual one if it runs on this machine. */
    void holdLock(const QProcessEnvironment &environment)
    {
        const QString id = QStringLiteral("zarvo_server-") + environment.value(QStringLiteral("USER"));
        const InstanceFiles files(id, InstanceFiles::standardFolders());
        const QByteArray number = QByteArray::number(QRandomGenerator::system()->generate64(), 16);
        lockPath = files.folders().last() + '/' + files.prefix() + number + ".lock";
        lock = InstanceFiles::open(lockPath, O_CREAT | O_EXCL);
        InstanceRecord record = {pid(), {}};
        for (const QString &variable : environment.toStringList()) {
            record.environment.append(variable.toLocal8Bit());
        }
        const QByteArray text = textOf(record);
        if (lock == -1 || InstanceFiles::lock(lock, lockPath, LOCK_EX) != InstanceFiles::Locking::Locked ||
            ::write(lock, text.constData(), static_cast<size_t>(text.size())) != text.size()) {
            qFatal("The process gets no lock");
        }
    }

    QTemporaryDir folder;
    QProcess process;
    QByteArray lockPath;
    int lock = -1;
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
