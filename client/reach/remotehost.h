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
 * so ssh asks for a pass phrase only once. Used on the main thread.
 */
class RemoteHost
{
public:
    /** The host that a session's location names ("ssh://user@host:22/…"); null if it names none. */
    [[nodiscard]] static std::unique_ptr<RemoteHost> fromLocation(const QString &location);

    ~RemoteHost();
    Q_DISABLE_COPY_MOVE(RemoteHost)

    [[nodiscard]] QString hostName() const { return host; }

    /**
     * Runs zarvoctl on that host, which makes an offer for a session there.
     * @param failure  set only on failure: with the exit code of that zarvoctl, or NoServer if ssh fails
     */
    [[nodiscard]] bool requestOffer(const QString &id, ConnectionOffer *offer, Failure *failure);

    /** A command that connects its standard input and output with a TCP port of that host. */
    [[nodiscard]] QStringList streamCommand(quint16 port) const;

private:
    RemoteHost() = default;
    [[nodiscard]] QStringList command(const QStringList &options) const;

    QString user;
    QString host;
    int port = -1;
    QTemporaryDir folder{
        QDir::temp().filePath(QStringLiteral("zarvoctl-XXXXXX"))}; ///< for the socket of the shared connection
};
