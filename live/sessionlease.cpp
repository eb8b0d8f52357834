// SPDX-License-Identifier: MIT
#include "live/sessionlease.h"

#include "engine/displays.h"
#include "engine/session.h"
#include "live/sessionstore.h"

SessionLease::SessionLease(SessionStore *store_, const QString &id_)
    : store(store_)
    , id(id_)
{
    acquireCode = store->acquire(id, session);
}

SessionLease::SessionLease(SessionStore *store_, const QString &id_, IfFree)
    : store(store_)
    , id(id_)
{
    acquireCode = store->tryAcquire(id, session);
}

SessionLease::SessionLease(SessionStore *store_, const QString &id_, Session *session_)
    : store(store_)
    , id(id_)
    , session(session_)
{
}

SessionLease::~SessionLease()
{
    if (session) {
        store->release(id);
    }
}

void SessionLease::remove()
{
    // Before the registry lets go of the display's number, so that no new session's files can be meant.
    if (session->exited) {
        removeStaleDisplayFiles(session->display);
    }
    session = nullptr;
    store->removeSession(id);
}

int SessionLease::removeIfBroken(int failure)
{
    if (session->broken) {
        remove();
    }
    return failure;
}
