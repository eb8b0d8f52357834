// SPDX-License-Identifier: MIT
#include "live/sessionactions.h"

#include "base/logging.h"
#include "contract/sessionerror.h"
#include "contract/sessionid.h"
#include "engine/displays.h"
#include "engine/launch.h"
#include "engine/session.h"
#include "engine/supervision.h"
#include "live/sessioninfo.h"
#include "live/sessionlease.h"
#include "live/sessionregistry.h"

#include <QDeadlineTimer>

#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

/** The longest time that an agent may take to start or to react to a signal. */
constexpr int kAgentTimeoutMs = 15000;

void describeConnection(const Session &session, QString *windowMode, QString *geometry, QString *password,
                        quint16 *port)
{
    *windowMode = session.windowMode;
    *geometry = u"%1x%2"_s.arg(session.screenSize.width()).arg(session.screenSize.height());
    *password = session.passwords.constLast();
    *port = agentPort(session.display);
}

/** Asks the agent for a new password and waits until it offers one. */
int offerPassword(SessionLease *lease)
{
    if (const int code = signalSession(**lease, SIGUSR1); code != SessionOk) {
        return code;
    }
    QDeadlineTimer deadline(kAgentTimeoutMs);
    do {
        const auto timeLeft = static_cast<int>(deadline.remainingTime());
        if (const int code = waitForPasswordsChange(lease->get(), timeLeft); code != SessionOk) {
            return lease->removeIfBroken(code);
        }
        // A client that uses an earlier password changes the list too, and may leave it empty.
    } while ((*lease)->passwords.isEmpty());
    return SessionOk;
}

} // namespace

SessionActions::SessionActions(SessionRegistry *registry_, const QString &root_, quint16 displayBase_,
                               quint16 displayLimit_, const QString &location_)
    : registry(registry_)
    , root(root_)
    , displayBase(displayBase_)
    , displayLimit(displayLimit_)
    , location(location_)
{
}

int SessionActions::start(const QString &id, const QString &command, const QString &geometry, QString *password,
                          quint16 *port)
{
    // The id is busy before the directory is touched, so that a second start of the id fails.
    if (!isValidSessionId(id) || !registry->reserve(id)) {
        logMessage(LogWarning, u"Got a bad id"_s);
        return NoSuchSession;
    }
    return startReserved(id, command, geometry, password, port);
}

int SessionActions::startReserved(const QString &id, const QString &command, const QString &geometry, QString *password,
                                  quint16 *port)
{
    DisplayReservation reservation(registry->displays());
    auto created = std::make_unique<Session>();
    Session *session = created.get();
    if (const int code = startSession(session, sessionDirectory(root, id), displayBase, displayLimit, geometry, command,
                                      &reservation);
        code != SessionOk) {
        registry->release(id);
        return code;
    }
    registry->addSession(id, std::move(created));

    SessionLease lease(registry, id, session);
    if (const int code = waitForStarted(session, kAgentTimeoutMs); code != SessionOk) {
        return lease.removeIfBroken(code);
    }
    if (const int code = startApplication(*lease, command); code != SessionOk) {
        return code;
    }
    if (const int code = offerPassword(&lease); code != SessionOk) {
        return code;
    }
    *password = lease->passwords.constLast();
    *port = agentPort(lease->display);
    // The client knows the session from now on. Without this a refresh that finds it busy again would leave it out of
    // the list, and clients would take it as ended.
    registry->setListed(id, SessionInfo(id, location, *lease));
    return SessionOk;
}

int SessionActions::resume(const QString &id, QString *windowMode, QString *geometry, QString *password, quint16 *port)
{
    SessionLease lease(registry, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (lease->clients != 0 || !lease->passwords.isEmpty()) {
        return InvalidState;
    }
    if (const int code = offerPassword(&lease); code != SessionOk) {
        return code;
    }
    describeConnection(*lease, windowMode, geometry, password, port);
    return SessionOk;
}

int SessionActions::replay(const QString &id, QString *windowMode, QString *geometry, QString *password, quint16 *port)
{
    const SessionLease lease(registry, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (lease->clients != 0 || lease->passwords.isEmpty()) {
        return InvalidState;
    }
    describeConnection(*lease, windowMode, geometry, password, port);
    return SessionOk;
}

int SessionActions::suspend(const QString &id)
{
    SessionLease lease(registry, id);
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

int SessionActions::terminate(const QString &id)
{
    SessionLease lease(registry, id);
    if (lease.code() != SessionOk) {
        return lease.code();
    }
    if (const int code = signalSession(*lease, SIGTERM); code != SessionOk) {
        return code;
    }
    if (const int code = waitForExit(lease.get(), kAgentTimeoutMs); code != SessionOk) {
        return lease.removeIfBroken(code);
    }
    lease.removeEnded();
    return SessionOk;
}
