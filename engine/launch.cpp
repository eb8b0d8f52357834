// SPDX-License-Identifier: MIT
#include "engine/launch.h"

#include "base/logging.h"
#include "contract/geometry.h"
#include "contract/sessionerror.h"
#include "engine/displays.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "support/processhardening.h"
#include "support/programrunner.h"
#include "support/randomdata.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QProcess>

using namespace Qt::StringLiterals;

namespace {

constexpr int kXauthTimeoutMs = 10000;

int fail(SessionError code, const QString &cause)
{
    logMessage(LogWarning, cause);
    return code;
}

bool addAuthority(const QDir &files, const QString &displayName, const QString &cookie, QString *error)
{
    const QStringList arguments = {
        u"-f"_s, files.filePath(SessionFile::kAuthority), u"add"_s, displayName, u"MIT-MAGIC-COOKIE-1"_s, cookie};
    return runProgram(u"xauth"_s, arguments, QString(), kXauthTimeoutMs, error);
}

/**
 * A killed xauth, or a full disk, leaves stale locks, and the next xauth waits for them. No other process holds them
 * here, because only one start at a time uses the id.
 */
void removeAuthorityLocks(const QDir &files)
{
    for (const QLatin1StringView suffix : {"-c"_L1, "-l"_L1}) {
        QFile::remove(files.filePath(SessionFile::kAuthority + suffix));
    }
}

bool writeDescription(const QDir &files, quint16 display, const QString &windowMode, const QString &name,
                      QString *error)
{
    return writeNumberFile(files.filePath(SessionFile::kDisplay), display, error) &&
           writeTextFile(files.filePath(SessionFile::kWindowMode), windowMode, error) &&
           writeTextFile(files.filePath(SessionFile::kName), name, error) &&
           writeTextFile(files.filePath(SessionFile::kInfo), u"{\n}"_s, error);
}

/**
 * An id may be started again. Without this the files of the earlier run's agent would be read as those of the new one.
 * The earlier log is kept under another name.
 */
void setAsideEarlierRun(const QDir &files)
{
    const QString log = files.filePath(SessionFile::kServerLog);
    const QFileInfo logInfo(log);
    if (logInfo.exists() || logInfo.isSymLink()) {
        const QString earlierLog = log + ".old"_L1;
        QFile::remove(earlierLog);
        if (!QFile::rename(log, earlierLog)) {
            QFile::remove(log);
        }
    }
    QFile::remove(files.filePath(SessionFile::kServerExit));
    // The system may have given this pid to another program, which our signals must not reach.
    QFile::remove(files.filePath(SessionFile::kServerPid));
}

/** Gives the program the user's own limit on core files, because it hands its limits on to the session's programs. */
bool startDetached(const QString &program, const QStringList &arguments, const QString &directory,
                   qint64 *pid = nullptr)
{
    const CoreFilesForChildren withUsersLimit;
    return QProcess::startDetached(program, arguments, directory, pid);
}

/** Starts the agent. It inherits only the standard streams, because every other descriptor is close-on-exec. */
bool startAgent(const QString &directory, const QString &geometry, quint16 display, qint64 *pid)
{
    const QStringList arguments = {geometry, QString::number(agentPort(display))};
    return startDetached(u"start-agent"_s, arguments, directory, pid);
}

/** Creates the directory with the files that describe the session, and its X authority. */
int prepareDirectory(const QString &directory, quint16 display, const QString &windowMode, const QString &name)
{
    QString error;
    QString cookie;
    if (!randomHex(&cookie, &error)) {
        return fail(CookieFailed, error);
    }
    if (!QDir(directory).exists() && !QDir().mkpath(directory)) {
        return fail(DirectoryFailed, u"Failed to create the directory \"%1\""_s.arg(directory));
    }
    const QDir files(directory);
    if (!writeDescription(files, display, windowMode, name, &error)) {
        return fail(WriteFailed, error);
    }
    removeAuthorityLocks(files);
    if (!addAuthority(files, u"unix:%1"_s.arg(display), cookie, &error)) {
        return fail(WriteFailed, error);
    }
    // Some programs reach the display by the host's name. Most do not, so a failure is only logged.
    if (!addAuthority(files, u"%2:%1"_s.arg(display).arg(QHostInfo::localHostName()), cookie, &error)) {
        logMessage(LogWarning, error);
    }
    return SessionOk;
}

} // namespace

int startSession(Session *session, const QString &directory, quint16 base, quint16 limit, const QString &geometry,
                 const QString &name, DisplayReservation *reservation)
{
    const std::optional<quint16> display = findOpenDisplay(base, limit, reservation);
    if (!display) {
        return fail(NoOpenDisplay, u"Failed to find an open display"_s);
    }
    const QString windowMode = windowModeOf(geometry);

    if (const int code = prepareDirectory(directory, *display, windowMode, name); code != SessionOk) {
        return code;
    }

    const QDir files(directory);
    setAsideEarlierRun(files);
    qint64 pid = 0;
    if (!startAgent(directory, geometry, *display, &pid)) {
        return fail(AgentFailed, u"Failed to start the agent in the directory \"%1\""_s.arg(directory));
    }
    if (QString error; !writeNumberFile(files.filePath(SessionFile::kMonitorPid), pid, &error)) {
        // The agent runs on, on its display, and its end cannot be noticed.
        if (reservation) {
            reservation->keep();
        }
        return fail(WriteFailed, error);
    }

    *session = Session();
    session->directory = directory;
    session->display = *display;
    session->monitorPid = static_cast<qint32>(pid);
    session->windowMode = windowMode;
    session->name = name;
    session->logStamp = epoch();
    return SessionOk;
}

int startApplication(const Session &session, const QString &command)
{
    if (session.directory.isEmpty()) {
        return NotInitialized;
    }
    QString error;
    if (!writeTextFile(QDir(session.directory).filePath(SessionFile::kAppLog), QString(), &error)) {
        return fail(WriteFailed, error);
    }
    if (!startDetached(u"start-app"_s, {command}, session.directory)) {
        return fail(ApplicationFailed,
                    u"Failed to start the applicaion in the directory \"%1\""_s.arg(session.directory));
    }
    return SessionOk;
}
