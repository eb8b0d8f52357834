// SPDX-License-Identifier: MIT
#include "agent/applications/applicationrunner.h"

#include "agent/applications/childwatcher.h"
#include "base/logging.h"

#include <QFile>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

ApplicationRunner::ApplicationRunner(ApplicationSettings settings_, ChildWatcher *watcher, QObject *parent)
    : QObject(parent)
    , settings(std::move(settings_))
{
    connect(watcher, &ChildWatcher::ended, this, &ApplicationRunner::Watcher_ended);
}

bool ApplicationRunner::run(const QByteArray &commandLine, QString *error)
{
    return runProgram({"/bin/sh", "-c", commandLine}, error) != -1;
}

pid_t ApplicationRunner::runProgram(const QList<QByteArray> &arguments, QString *error)
{
    // Opened to append, because the server empties the file when it is about to start an application.
    const int output = ::open(QFile::encodeName(settings.logPath).constData(),
                              O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (output == -1) {
        *error = u"Failed to open the file \"%1\": %2"_s.arg(settings.logPath, qt_error_string(errno));
        return -1;
    }
    SpawnRequest request;
    request.program = arguments.first();
    request.arguments = arguments;
    request.environment = settings.environment;
    request.output = output;
    request.fileCreationMask = settings.fileCreationMask;
    request.workingDirectory = settings.workingDirectory;
    const pid_t pid = spawnProcess(request, error);
    ::close(output);
    if (pid == -1) {
        return -1;
    }
    running.insert(pid);
    logMessage(LogInfo, u"Started process %1: %2"_s.arg(pid).arg(QString::fromLocal8Bit(arguments.join(' '))));
    return pid;
}

void ApplicationRunner::Watcher_ended(pid_t pid, int status)
{
    if (running.remove(pid)) {
        logMessage(LogInfo, u"Process %1 ended with %2"_s.arg(pid).arg(exitStatusText(status)));
    }
}
