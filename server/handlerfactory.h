// SPDX-License-Identifier: MIT
#pragma once

class Handler;
class QIODevice;
class SessionStore;
class SessionUpdater;

/** Knows what the handler of a client connection needs. Owns nothing; used on the main thread. */
class HandlerFactory final
{
public:
    HandlerFactory(SessionStore *store, SessionUpdater *updater);

    /** A handler with method objects of its own that gets every update; the caller gives it a parent. */
    [[nodiscard]] Handler *createHandler(QIODevice *device) const;

private:
    SessionStore *store;
    SessionUpdater *updater;
};
