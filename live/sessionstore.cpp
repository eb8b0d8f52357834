// SPDX-License-Identifier: MIT
#include "live/sessionstore.h"

#include "base/idletimer.h"
#include "base/logging.h"
#include "contract/sessionerror.h"
#include "contract/sessionid.h"
#include "engine/launch.h"
#include "engine/session.h"
#include "engine/sessionfiles.h"
#include "engine/sessionloading.h"
#include "engine/supervision.h"
#include "live/sessiondirectoryremoval.h"
#include "live/sessionlease.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QMutexLocker>
#include <QThread>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** How long an agent may take for what it was asked. */
constexpr int kAgentTimeoutMs = 15000;
/** How often a start-up looks at what the system cannot read at the moment. */
constexpr int kScanLooks = 3;
constexpr int kScanPauseMs = 200; ///< before each further look

/**
 * The paths of all directories in this one; nothing when the system cannot tell at the moment, which is logged. QDir
 * would list none then.
 */
std::optional<QStringList> directoriesIn(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor != -1) {
        ::close(descriptor);
    } else if (const QString reason = qt_error_string(errno); isPassing(reason)) {
        logMessage(LogWarning, u"Failed to open the directory \"%1\": %2"_s.arg(path, reason));
        return std::nullopt;
    }
    const QDir directory(path, QString(), QDir::Unsorted, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    QStringList paths;
    for (const QString &name : directory.entryList()) {
        paths.append(directory.filePath(name));
    }
    return paths;
}

QString geometryOf(const Session &session)
{
    return u"%1x%2"_s.arg(session.screenSize.width()).arg(session.screenSize.height());
}

void describeConnection(const Session &session, QString &windowMode, QString &geometry, QString &password,
                        quint16 &port)
{
    windowMode = session.windowMode;
    geometry = geometryOf(session);
    password = session.passwords.constLast();
    port = agentPort(session.display);
}

/** A session that ended well leaves nothing behind; any other keeps its files for whoever looks into it. */
void cleanUp(const Session &session)
{
    QString error;
    if (session.exitCode == 0 && !removeSessionDirectory(session.directory, error)) {
        logMessage(LogWarning, error);
    }
}

/** Asks the agent for one more password and waits until it is there. */
int offerPassword(SessionLease &lease)
{
    if (const int code = signalSession(*lease, SIGUSR1); code != SessionOk) {
        return code;
    }
    QDeadlineTimer deadline(kAgentTimeoutMs);
    do {
        const auto timeLeft = static_cast<int>(deadline.remainingTime());
        if (const int code = waitForPasswordsChange(lease.get(), timeLeft); code != SessionOk) {
            return lease.removeIfBroken(code);
        }
        // A client that uses up an earlier password changes the list as well, and may leave nothing in it.
    } while (lease->passwords.isEmpty());
    return SessionOk;
}

/** Whether the session has been without a client for this long; one that never had any counts as such. */
bool isForsaken(const Session &session, qint32 seconds)
{
    return session.clients == 0 &&
           (session.lastDisconnect.isNull() || QDateTime::currentDateTime() >= session.lastDisconnect.addSecs(seconds));
}

} // namespace

SessionStore::SessionStore(const QString &root_, quint16 displayBase_, quint16 displayLimit_, const QString &location_)
    : root(root_)
    , displayBase(displayBase_)
    , displayLimit(displayLimit_)
    , location(location_)
{
    scan();
}

SessionStore::~SessionStore()
{
    for (size_t left = sessions.size(); left > 0; --left) {
        releaseSession();
    }
}

// What the system could not read for a moment is looked at again: until the next server nobody would list it.
void SessionStore::scan()
{
    std::optional<QStringList> left;
    for (int look = 0; look < kScanLooks; ++look) {
        if (look > 0) {
            QThread::msleep(kScanPauseMs);
        }
        if (!left) {
            left = directoriesIn(root);
        }
        if (left) {
            left = load(*left);
            if (left->isEmpty()) {
                return;
            }
        }
    }
}

/** @return those of the directories that may be readable a moment later */
QStringList SessionStore::load(const QStringList &paths)
{
    QStringList left;
    for (const QString &path : paths) {
        const QString id = sessionIdFromPath(path);
        auto session = std::make_unique<Session>();
        bool mayPass = false;
        if (id.isNull() || loadSession(session.get(), path, &mayPass) != SessionOk ||
            refreshSession(session.get()) != SessionOk) {
            if (mayPass) {
                left.append(path);
            }
            continue;
        }
        insert(id, std::move(session)); // two directories may carry one id, with a suffix that does not count
    }
    return left;
}

/** Registers the session in place of an earlier one of this id. The mutex is held, or nobody else is there yet. */
void SessionStore::insert(const QString &id, std::unique_ptr<Session> session)
{
    if (session) {
        reservations.hold(session->display);
    }
    const auto [entry, isNew] = sessions.try_emplace(id);
    if (isNew) {
        holdSession(); // a replaced entry hands its hold on
    }
    releaseDisplay(entry->second);
    entry->second = {std::move(session), std::nullopt};
}

void SessionStore::releaseDisplay(const Entry &entry)
{
    if (entry.session) {
        reservations.remove(entry.session->display);
    }
}

bool SessionStore::isBusy(const QString &id) const
{
    const QMutexLocker locker(&mutex);
    return busy.contains(id);
}

bool SessionStore::reserve(const QString &id)
{
    const QMutexLocker locker(&mutex);
    while (glances.contains(id)) {
        changed.wait(&mutex);
    }
    if (busy.contains(id)) {
        return false;
    }
    busy.insert(id);
    return true;
}

int SessionStore::acquire(const QString &id, Session *&session)
{
    const QMutexLocker locker(&mutex);
    while (busy.contains(id)) {
        changed.wait(&mutex);
    }
    return markBusy(id, session);
}

int SessionStore::tryAcquire(const QString &id, Session *&session)
{
    const QMutexLocker locker(&mutex);
    if (busy.contains(id)) {
        return InvalidState;
    }
    const int code = markBusy(id, session);
    if (code == SessionOk) {
        glances.insert(id);
    }
    return code;
}

/** Marks a session busy that is not. The mutex is held. */
int SessionStore::markBusy(const QString &id, Session *&session)
{
    const auto found = sessions.find(id);
    if (found == sessions.end() || !found->second.session) {
        return NoSuchSession;
    }
    busy.insert(id);
    session = found->second.session.get();
    return SessionOk;
}

void SessionStore::release(const QString &id)
{
    const QMutexLocker locker(&mutex);
    unmarkBusy(id);
}

/** Ends what markBusy() began. The mutex is held. */
void SessionStore::unmarkBusy(const QString &id)
{
    busy.remove(id);
    glances.remove(id);
    changed.wakeAll();
}

void SessionStore::addSession(const QString &id, std::unique_ptr<Session> session)
{
    const QMutexLocker locker(&mutex);
    insert(id, std::move(session));
    busy.insert(id);
}

std::unique_ptr<Session> SessionStore::removeSession(const QString &id)
{
    const QMutexLocker locker(&mutex);
    unmarkBusy(id);
    auto entry = sessions.extract(id);
    if (entry.empty()) {
        return nullptr;
    }
    releaseSession();
    releaseDisplay(entry.mapped());
    return std::move(entry.mapped().session);
}

QStringList SessionStore::sessionIds() const
{
    const QMutexLocker locker(&mutex);
    QStringList ids;
    ids.reserve(static_cast<qsizetype>(sessions.size()));
    for (const auto &[id, entry] : sessions) {
        ids.append(id);
    }
    return ids;
}

std::optional<SessionInfo> SessionStore::lastListed(const QString &id) const
{
    const QMutexLocker locker(&mutex);
    const auto found = sessions.find(id);
    return found == sessions.end() ? std::nullopt : found->second.listed;
}

void SessionStore::setListed(const QString &id, const SessionInfo &info)
{
    const QMutexLocker locker(&mutex);
    const auto found = sessions.find(id);
    if (found != sessions.end()) {
        found->second.listed = info;
    }
}

void SessionStore::refreshAll(QList<SessionInfo> &out)
{
    purgeRemoteSessions();
    out = remoteSessions();
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        if (const std::optional<SessionInfo> info = refreshOne(id)) {
            out.append(*info);
        }
    }
}

std::optional<SessionInfo> SessionStore::refreshOne(const QString &id)
{
    SessionLease lease(this, id, SessionLease::IfFree());
    if (lease.code() == InvalidState) {
        return lastListed(id);
    }
    if (lease.code() != SessionOk) {
        return std::nullopt;
    }
    if (refreshSession(lease.get()) != SessionOk) {
        lease.remove();
        return std::nullopt;
    }
    if (lease->exited) {
        cleanUp(*lease);
        lease.remove();
        return std::nullopt;
    }
    const SessionInfo info(id, location, *lease);
    setListed(id, info); // while the session is ours, so that nobody can have replaced it
    return info;
}

int SessionStore::listLocalSessions(QList<SessionInfo> &out)
{
    out.clear();
    return appendLocalSessions(out);
}

int SessionStore::listSessions(QList<SessionInfo> &out)
{
    out = remoteSessions();
    return appendLocalSessions(out);
}

int SessionStore::appendLocalSessions(QList<SessionInfo> &out)
{
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        const SessionLease lease(this, id);
        if (lease.code() != SessionOk) {
            return lease.code();
        }
        out.append(SessionInfo(id, location, *lease));
    }
    return SessionOk;
}

void SessionStore::suspendIdle(int minutes)
{
    // In 32 bits, where a huge setting wraps around, but without the undefined behaviour of a signed product.
    const auto seconds = static_cast<qint32>(static_cast<quint32>(minutes) * 60U);
    const QStringList ids = sessionIds();
    for (const QString &id : ids) {
        const SessionLease lease(this, id, SessionLease::IfFree());
        if (lease.code() == SessionOk && isForsaken(*lease, seconds)) {
            [[maybe_unused]] const int code = signalSession(*lease, SIGTERM);
        }
    }
}

int SessionStore::start(const QString &id, const QString &command, const QString &geometry, QString &password,
                        quint16 &port)
{
    // Busy from here on, so that of two starts of one id only one gets as far as the directory.
    if (!isValidSessionId(id) || !reserve(id)) {
        logMessage(LogWarning, u"Got a bad id"_s);
        return NoSuchSession;
    }
    return startReserved(id, command, geometry, password, port);
}

int SessionStore::startReserved(const QString &id, const QString &command, const QString &geometry, QString &password,
                                quint16 &port)
{
    DisplayReservation reservation(&reservations);
    auto created = std::make_unique<Session>();
    Session *session = created.get();
    if (const int code = startSession(session, sessionDirectory(root, id), displayBase, displayLimit, geometry, command,
                                      &reservation);
        code != SessionOk) {
        release(id);
        return code;
    }
    addSession(id, std::move(created));

    SessionLease lease(this, id, session);
    if (const int code = waitForStarted(session, kAgentTimeoutMs); code != SessionOk) {
        return lease.removeIfBroken(code);
    }
    if (const int code = startApplication(*lease, command); code != SessionOk) {
        return code;
    }
    if (const int code = offerPassword(lease); code != SessionOk) {
        return code;
    }
    password = lease->passwords.constLast();
    port = agentPort(lease->display);
    // From now on somebody knows of it: a list that leaves it out, for it is busy again by then, would tell of its end.
    setListed(id, SessionInfo(id, location, *lease));
    return SessionOk;
}

int SessionStore::resume(const QString &id, QString &windowMode, QString &geometry, QString &password, quint16 &port)
{
    SessionLease lease(this, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (lease->clients != 0 || !lease->passwords.isEmpty()) {
        return InvalidState;
    }
    if (const int code = offerPassword(lease); code != SessionOk) {
        return code;
    }
    describeConnection(*lease, windowMode, geometry, password, port);
    return SessionOk;
}

int SessionStore::replay(const QString &id, QString &windowMode, QString &geometry, QString &password, quint16 &port)
{
    const SessionLease lease(this, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (lease->clients != 0 || lease->passwords.isEmpty()) {
        return InvalidState;
    }
    describeConnection(*lease, windowMode, geometry, password, port);
    return SessionOk;
}

int SessionStore::suspend(const QString &id)
{
    SessionLease lease(this, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (lease->clients == 0) {
        return InvalidState;
    }
    if (const int code = signalSession(*lease, SIGUSR2); code != SessionOk) {
        return code;
    }
    if (const int code = waitForDisconnect(lease.get(), kAgentTimeoutMs); code != SessionOk) {
        return lease.removeIfBroken(code);
    }
    return SessionOk;
}

int SessionStore::terminate(const QString &id)
{
    SessionLease lease(this, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (const int code = signalSession(*lease, SIGTERM); code != SessionOk) {
        return code;
    }
    if (const int code = waitForExit(lease.get(), kAgentTimeoutMs); code != SessionOk) {
        return lease.removeIfBroken(code);
    }
    cleanUp(*lease);
    lease.remove();
    return SessionOk;
}

void SessionStore::storeRemoteSessions(const QString &key, const QDateTime &expiry, const QList<SessionInfo> &list)
{
    const QMutexLocker locker(&mutex);
    remoteExpiry[key] = expiry;
    remoteLists[key] = list;
}

void SessionStore::forgetRemoteSessions(const QString &key)
{
    const QMutexLocker locker(&mutex);
    remoteExpiry.remove(key);
    remoteLists.remove(key);
}

void SessionStore::purgeRemoteSessions()
{
    const QMutexLocker locker(&mutex);
    const QDateTime now = QDateTime::currentDateTime();
    for (auto expiry = remoteExpiry.begin(); expiry != remoteExpiry.end();) {
        if (expiry.value() < now) {
            remoteLists.remove(expiry.key());
            expiry = remoteExpiry.erase(expiry);
        } else {
            ++expiry;
        }
    }
}

QList<SessionInfo> SessionStore::remoteSessions() const
{
    const QMutexLocker locker(&mutex);
    QList<SessionInfo> all;
    for (const QList<SessionInfo> &list : remoteLists) {
        all.append(list);
    }
    return all;
}
