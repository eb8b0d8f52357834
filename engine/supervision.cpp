// SPDX-License-Identifier: MIT
#include "engine/supervision.h"

#include "base/logging.h"
#include "contract/sessionerror.h"
#include "engine/agentinfo.h"
#include "engine/agentlog.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPollIntervalMs = 50;
/** A log that is older than its stamp by less than this is read again, because clocks of file servers drift. */
constexpr qint64 kLogStampToleranceMs = 500;

enum class Liveness { Alive, Gone, Unknown };

bool isSameFile(const QByteArray &first, const QByteArray &second)
{
    struct stat a = {};
    struct stat b = {};
    return ::stat(first.constData(), &a) == 0 && ::stat(second.constData(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

bool isSymbolicLink(const QByteArray &path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 && S_ISLNK(status.st_mode);
}

/**
 * Whether the process with this pid works in the session's directory. The pid alone proves nothing, because the system
 * reuses it once its owner has ended.
 */
Liveness processLiveness(qint32 pid, const QString &directory)
{
    const QString process = u"/proc/%1"_s.arg(pid);
    const QByteArray workingDirectory = QFile::encodeName(process + "/cwd"_L1);
    if (isSymbolicLink(workingDirectory)) {
        return isSameFile(workingDirectory, QFile::encodeName(directory)) ? Liveness::Alive : Liveness::Gone;
    }
    return QFile::exists(process) ? Liveness::Unknown : Liveness::Gone;
}

void refreshFromLog(Session *session, const QString &path)
{
    const QDateTime modified = QFileInfo(path).lastModified();
    if (modified.msecsTo(session->logStamp) >= kLogStampToleranceMs) {
        return;
    }
    QString error;
    if (readAgentLog(session, path, &error)) {
        session->logStamp = modified;
    }
}

/** Asks the agent if it has a socket, else reads its log. A failure is ignored: the next refresh tries again. */
void refreshAgentState(Session *session)
{
    const QString socketPath = agentSocketPath(session->display);
    if (QFile::exists(socketPath)) {
        QString error;
        [[maybe_unused]] const bool answered = readAgentInfo(session, socketPath, &error);
        return;
    }
    const QString logPath = QDir(session->directory).filePath(SessionFile::kServerLog);
    if (QFile::exists(logPath)) {
        refreshFromLog(session, logPath);
    }
}

int refreshExitCode(Session *session)
{
    QString error;
    const QString path = QDir(session->directory).filePath(SessionFile::kServerExit);
    session->broken = !readNumberFile(path, &session->exitCode, &error);
    if (session->broken) {
        logMessage(LogWarning, error);
        return ReadFailed;
    }
    return SessionOk;
}

/** Sleeps the whole time, also when signals arrive. */
bool sleepFor(qint64 milliseconds)
{
    timespec left = {};
    left.tv_sec = milliseconds / 1000;
    left.tv_nsec = milliseconds % 1000 * 1000000;
    while (::nanosleep(&left, &left) != 0) {
        if (errno != EINTR) {
            logMessage(LogWarning, u"Failed to sleep: %1"_s.arg(qt_error_string(errno)));
            return false;
        }
    }
    return true;
}

/**
 * Refreshes the session until @p isMet is true for it.
 * @param failsOnExit  whether the wait fails when the agent has ended
 */
template <typename Condition>
int waitFor(Session *session, int timeoutMs, bool failsOnExit, Condition isMet)
{
    if (session->directory.isEmpty()) {
        return NotInitialized;
    }
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (const int code = refreshSession(session); code != SessionOk) {
            return code;
        }
        if (isMet(*session)) {
            return SessionOk;
        }
        if (failsOnExit && session->exited) {
            return UnknownError;
        }
        if (timeoutMs >= 0 && timer.elapsed() >= timeoutMs) {
            return TimedOut;
        }
        const qint64 left = std::max<qint64>(0, timeoutMs - timer.elapsed());
        if (!sleepFor(timeoutMs < 0 ? kPollIntervalMs : std::min<qint64>(kPollIntervalMs, left))) {
            return UnknownError;
        }
    }
}

/** Waits until a field of the session differs from its value at the beginning. */
template <typename Field>
int waitForChange(Session *session, int timeoutMs, Field Session::*field)
{
    const Field before = session->*field;
    return waitFor(session, timeoutMs, true, [&](const Session &now) { return now.*field != before; });
}

} // namespace

int refreshSession(Session *session)
{
    if (session->directory.isEmpty()) {
        return NotInitialized;
    }
    const Liveness liveness = processLiveness(session->monitorPid, session->directory);
    if (liveness == Liveness::Unknown) {
        session->broken = true;
        logMessage(LogWarning, u"Failed to determine if the process with pid \"%1\" is alive: %2"_s.arg(
                                   QString::number(session->monitorPid), u"Invalid proc format"_s));
        return UnknownError;
    }
    session->exited = liveness == Liveness::Gone;
    refreshAgentState(session);
    session->broken = false;
    return session->exited ? refreshExitCode(session) : SessionOk;
}

int waitForExit(Session *session, int timeoutMs)
{
    return waitFor(session, timeoutMs, false, [](const Session &now) { return now.exited; });
}

int waitForPasswordsChange(Session *session, int timeoutMs)
{
    return waitForChange(session, timeoutMs, &Session::passwords);
}

int waitForStarted(Session *session, int timeoutMs)
{
    return waitForChange(session, timeoutMs, &Session::started);
}

int waitForConnect(Session *session, int timeoutMs)
{
    return waitForChange(session, timeoutMs, &Session::lastConnect);
}

int waitForDisconnect(Session *session, int timeoutMs)
{
    return waitForChange(session, timeoutMs, &Session::lastDisconnect);
}

int signalSession(const Session &session, int number)
{
    if (session.directory.isEmpty()) {
        return NotInitialized;
    }
    const QDir files(session.directory);
    if (!files.exists()) {
        logMessage(LogWarning, u"The directory \"%1\" does not exist"_s.arg(session.directory));
        return NotASession;
    }
    qint32 pid = 0;
    QString error;
    if (!readNumberFile(files.filePath(SessionFile::kServerPid), &pid, &error)) {
        logMessage(LogWarning, error);
        return ReadFailed;
    }
    // Zero and negative numbers would signal whole process groups, including our own.
    int reason = ESRCH;
    if (pid > 0) {
        int outcome = 0;
        do {
            outcome = ::kill(pid, number);
        } while (outcome != 0 && errno == EINTR);
        if (outcome == 0) {
            return SessionOk;
        }
        reason = errno;
    }
    logMessage(LogWarning, u"Failed to signal the process with pid \"%1\": %2"_s.arg(QString::number(pid),
                                                                                     qt_error_string(reason)));
    return UnknownError;
}
