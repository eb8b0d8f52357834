// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class SessionRegistry;

/**
 * The actions that clients ask for, each a sequence of engine operations under a SessionLease. Outputs are set only on
 * success. Owned by the SessionStore, whose functions of the same names say how long each action blocks. Callable from
 * any thread except the main thread.
 */
class SessionActions final
{
public:
    /** @param root,displayBase,displayLimit,location  as for the SessionStore */
    SessionActions(SessionRegistry *registry, const QString &root, quint16 displayBase, quint16 displayLimit,
                   const QString &location);
    Q_DISABLE_COPY_MOVE(SessionActions)

    [[nodiscard]] int start(const QString &id, const QString &command, const QString &geometry, QString *password,
                            quint16 *port);
    [[nodiscard]] int resume(const QString &id, QString *windowMode, QString *geometry, QString *password,
                             quint16 *port);
    [[nodiscard]] int replay(const QString &id, QString *windowMode, QString *geometry, QString *password,
                             quint16 *port);
    [[nodiscard]] int suspend(const QString &id);
    [[nodiscard]] int terminate(const QString &id);

private:
    [[nodiscard]] int startReserved(const QString &id, const QString &command, const QString &geometry,
                                    QString *password, quint16 *port);

    SessionRegistry *registry; ///< not owned
    const QString root;
    const quint16 displayBase;
    const quint16 displayLimit;
    const QString location;
};
