// SPDX-License-Identifier: MIT
#pragma once

#include "agent/display/backendhandshake.h"

#include <QLocalSocket>
#include <QObject>
#include <QTimer>

#include <memory>

/**
 * Opens a connection to the X server's socket and does the handshake there. Owned by the client that needs it, lives on
 * the main thread, used once.
 */
class BackendConnection final : public QObject
{
    Q_OBJECT

public:
    explicit BackendConnection(QObject *parent = nullptr);
    ~BackendConnection() override;

    /** Connects to the socket at @p path. opened() or failed() follows, never during this call. */
    void open(const QString &path);

    /**
     * The socket, once, after opened(). The X server waits for the client's first message.
     *
     * @param unread  what was read behind the handshake
     */
    [[nodiscard]] std::unique_ptr<QLocalSocket> takeSocket(QByteArray *unread);

signals:
    void opened();
    /** @p reason is a few words to log. */
    void failed(const QString &reason);

private:
    void Socket_readyRead();
    void fail(const QString &reason);

    std::unique_ptr<QLocalSocket> socket;
    BackendHandshake handshake;
    QByteArray received;
    QTimer deadline;
};
