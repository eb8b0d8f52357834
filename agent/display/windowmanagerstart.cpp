// SPDX-License-Identifier: MIT
#include "agent/display/windowmanagerstart.h"

#include "agent/applications/applicationrunner.h"
#include "agent/applications/childwatcher.h"
#include "agent/display/windowmanager.h"
#include "base/logging.h"

using namespace Qt::StringLiterals;

WindowManagerStart::WindowManagerStart(ApplicationRunner *applications_, ChildWatcher *watcher, QObject *parent)
    : QObject(parent)
    , applications(applications_)
{
    connect(watcher, &ChildWatcher::ended, this, &WindowManagerStart::Watcher_ended);
    connect(&deadline, &QTimer::timeout, this,
            [this] { settle(u"The window manager is not ready, the session goes on without it"_s); });
    deadline.setSingleShot(true);
}

void WindowManagerStart::start(const QString &settingsPath, std::chrono::milliseconds patience)
{
    QString error;
    if (!startProgram(settingsPath, &error)) {
        settle(error);
        return;
    }
    deadline.start(patience);
}

void WindowManagerStart::setManaging()
{
    if (deadline.isActive()) {
        settle({});
    }
}

void WindowManagerStart::cancel()
{
    deadline.stop();
}

bool WindowManagerStart::startProgram(const QString &settingsPath, QString *error)
{
    QList<QByteArray> arguments;
    if (!prepareWindowManager(settingsPath, &arguments, error)) {
        return false;
    }
    if (arguments.isEmpty()) {
        *error = u"No window manager is installed, neither openbox nor matchbox-window-manager"_s;
        return false;
    }
    process = applications->runProgram(arguments, error);
    return process != -1;
}

void WindowManagerStart::Watcher_ended(pid_t pid)
{
    if (pid == process && deadline.isActive()) {
        settle(u"The window manager has ended, the session goes on without it"_s);
    }
}

void WindowManagerStart::settle(const QString &problem)
{
    deadline.stop();
    if (!problem.isEmpty()) {
        logMessage(LogWarning, problem);
    }
    emit settled();
}
