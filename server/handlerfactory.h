// SPDX-License-Identifier: MIT
#pragma once

class Handler;
class QIODevice;
class SessionStore;
class SessionUpdater;

/** Makes the handlers of client connections. Owns nothing; used on the main thread. */
class HandlerFactory final
{
public:
    HandlerFactory(SessionStore *store, SessionUpdater *updater);

    /** Makes a handler that has method objects of its own and gets every update. The caller gives it a parent. */
    [[nodiscard]] Handler *createHandler(QIODevice *device) const;

private:
    SessionStore *store;
    SessionUpdater *updater;
};
