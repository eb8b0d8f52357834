// SPDX-License-Identifier: MIT
#pragma once

#include "client/sessions/connectionoffer.h"
#include "client/terminal/exitcode.h"

#include <QDir>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

/**
 * Another host of the user, reached with "ssh" or with the command in ZARVO_SSH. All calls share one ssh connection,
 * so that a pass phrase is asked for once. Used on the main thread.
 */
class RemoteHost
{
public:
    /** The host that a session's location names ("ssh://user@host:22/…"); null when it names none. */
    [[nodiscard]] static std::unique_ptr<RemoteHost> fromLocation(const QString &location);

    ~RemoteHost();
    Q_DISABLE_COPY_MOVE(RemoteHost)

    [[nodiscard]] QString hostName() const { return host; }

    /**
     * Has the zarvoctl over there make an offer for a session of its host.
     * @param failure  set only on failure: with the exit code of that zarvoctl, or NoServer when ssh fails
     */
    [[nodiscard]] bool requestOffer(const QString &id, ConnectionOffer *offer, Failure *failure);

    /** The command whose standard streams lead to a TCP port of that host. */
    [[nodiscard]] QStringList streamCommand(quint16 port) const;

private:
    RemoteHost() = default;
    [[nodiscard]] QStringList command(const QStringList &options) const;

    QString user;
    QString host;
    int port = -1;
    QTemporaryDir folder{
        QDir::temp().filePath(QStringLiteral("zarvoctl-XXXXXX"))}; ///< for the shared connection's socket
};
