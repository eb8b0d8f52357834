// SPDX-License-Identifier: MIT
#pragma once

#include "client/reach/guardedport.h"
#include "client/reach/privatedirectory.h"
#include "client/reach/streampump.h"
#include "support/localendpoint.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTemporaryDir>

#include <memory>
#include <optional>

/**
 * Where one viewer on this host gets the stream of a session: a local socket in a directory of its own, or a guarded
 * port for a viewer that cannot use one. The first connection of this user is joined with the stream; further ones are
 * closed. The destructor ends the connection and removes the directory. Used on the main thread.
 */
class ViewerGate final : public QObject
{
    Q_OBJECT

public:
    /**
     * @param stream  the descriptor of the session's stream, which the gate takes over
     * @param begin   what has been read from it already
     */
    explicit ViewerGate(int stream, const QByteArray &begin = {}, QObject *parent = nullptr);
    ~ViewerGate() override;

    /** @param error  set only on failure: one sentence */
    [[nodiscard]] bool openSocket(QString *error);
    [[nodiscard]] bool openPort(QString *error);

    /** Where openSocket() has put the socket. */
    [[nodiscard]] const PrivateDirectory &directory() const { return folder; }
    [[nodiscard]] QString socketName() const { return QStringLiteral("viewer.sock"); }

    /** The port of openPort(). */
    [[nodiscard]] quint16 port() const { return guardedPort.port(); }

private:
    void join(int viewer);
    void Pump_finished();
    void closeConnection();

    int stream;
    QByteArray begin;
    int viewer = -1;
    std::optional<QTemporaryDir> temporary;
    PrivateDirectory folder;
    std::unique_ptr<LocalEndpoint> endpoint;
    GuardedPort guardedPort;
    std::unique_ptr<StreamPump> pump;
};
