// SPDX-License-Identifier: MIT
#include "live/sessionlease.h"

#include "base/logging.h"
#include "engine/displays.h"
#include "engine/session.h"
#include "live/sessiondirectoryremoval.h"
#include "live/sessionregistry.h"

SessionLease::SessionLease(SessionRegistry *registry_, const QString &id_)
    : registry(registry_)
    , id(id_)
{
    acquireCode = registry->acquire(id, &session);
}

SessionLease::SessionLease(SessionRegistry *registry_, const QString &id_, IfFree)
    : registry(registry_)
    , id(id_)
{
    acquireCode = registry->tryAcquire(id, &session);
}

SessionLease::SessionLease(SessionRegistry *registry_, const QString &id_, Session *session_)
    : registry(registry_)
    , id(id_)
    , session(session_)
{
}

SessionLease::~SessionLease()
{
    if (session) {
        registry->release(id);
    }
}

void SessionLease::remove()
{
    // Before the registry frees the display's number, so that these cannot be the files of a new session.
    if (session->exited) {
        removeStaleDisplayFiles(session->display);
    }
    session = nullptr;
    registry->removeSession(id);
}

void SessionLease::removeEnded()
{
    // A session that failed keeps its files, so that its user can read why.
    QString error;
    if (session->exitCode == 0 && !removeSessionDirectory(session->directory, error)) {
        logMessage(LogWarning, error);
    }
    remove();
}

int SessionLease::removeIfBroken(int failure)
{
    if (session->broken) {
        remove();
    }
    return failure;
}
