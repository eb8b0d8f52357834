// SPDX-License-Identifier: MIT
#include "client/server/serverlauncher.h"

#include "support/processhardening.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <cerrno>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

/** A failed start writes one line. This bounds the memory if another program with that name writes more. */
constexpr qsizetype kMaxMessageLength = 16384;

QString missingProgramText()
{
    return u"The program \"zarvo_server\" is neither in \"%1\" nor on the search path"_s.arg(
        QCoreApplication::applicationDirPath());
}

} // namespace

QString bundledProgramsPath()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + u"/../libexec/zarvo"_s);
}

QString serverProgramPath()
{
    const QString beside = QDir(QCoreApplication::applicationDirPath()).filePath(u"zarvo_server"_s);
    return QFileInfo(beside).isExecutable() ? beside : QStandardPaths::findExecutable(u"zarvo_server"_s);
}

QString serverSearchPath()
{
    const QString path = qEnvironmentVariable("PATH", u"/usr/local/bin:/usr/bin:/bin"_s);
    return path + u':' + bundledProgramsPath();
}

bool makePrivatePath(const QString &path, QString *error)
{
    if (QFileInfo(path).isDir()) {
        return true;
    }
    const QString parent = QFileInfo(QDir::cleanPath(path)).path();
    if (parent != path && !makePrivatePath(parent, error)) {
        return false;
    }
    if (::mkdir(QFile::encodeName(path).constData(), S_IRWXU) == -1 && errno != EEXIST) {
        *error = u"Failed to create the directory \"%1\": %2"_s.arg(path, qt_error_string(errno));
        return false;
    }
    return true;
}

ServerLauncher::ServerLauncher(QObject *parent)
    : QObject(parent)
{
    connect(&process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            text = process.errorString();
        }
    });
    connect(&process, &QProcess::readyReadStandardError, this, &ServerLauncher::Process_readyRead);
}

ServerLauncher::~ServerLauncher()
{
    if (isRunning()) {
        // This is the foreground process, which only passes messages on; the server in the background goes on.
        process.disconnect(this);
        process.kill();
        process.waitForFinished(1000);
    }
}

bool ServerLauncher::start(const QString &userPath, QString *error)
{
    const QString program = serverProgramPath();
    if (program.isEmpty()) {
        *error = missingProgramText();
        return false;
    }
    if (!makePrivatePath(userPath, error)) {
        return false;
    }
    text.clear();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"PATH"_s, serverSearchPath());
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    // The server starts sessions, and their programs have the user's own limits.
    process.setChildProcessModifier(restoreCoreFiles);
    process.start(program, QStringList());
    return true;
}

void ServerLauncher::Process_readyRead()
{
    text += QString::fromLocal8Bit(process.readAllStandardError());
    text.truncate(kMaxMessageLength);
}
