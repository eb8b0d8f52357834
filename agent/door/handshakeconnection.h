// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/rfbhandshake.h"

#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

#include <chrono>
#include <memory>

class AttemptLimiter;
class PasswordStore;

/** How long a handshake may take. A value; the defaults are the product's. */
struct HandshakeLimits
{
    std::chrono::milliseconds longest{20000};    ///< from the connection to the end of the handshake
    std::chrono::milliseconds failureDelay{500}; ///< between a wrong password and its answer
};

/**
 * One connection from accept until it is authenticated or closed. It emits exactly one of its two signals, once, and
 * serves no purpose after that. Owned by the front door, lives on the main thread.
 */
class HandshakeConnection final : public QObject
{
    Q_OBJECT

public:
    /** @param socket  connected. @param passwords and @param limiter outlive this object */
    HandshakeConnection(std::unique_ptr<QTcpSocket> socket, PasswordStore *passwords, AttemptLimiter *limiter,
                        HandshakeLimits limits, QObject *parent = nullptr);
    ~HandshakeConnection() override;

    [[nodiscard]] QHostAddress address() const { return peer; }

    /** The socket. May be called once, after authenticated(). @param unread  what came in after the handshake */
    [[nodiscard]] std::unique_ptr<QTcpSocket> takeSocket(QByteArray *unread);

signals:
    /** The client has used up @p password. */
    void authenticated(const QByteArray &password);
    /** The connection is closed. @p reason is a few words to log, or empty when there is nothing to log. */
    void failed(const QString &reason);

private:
    void Socket_readyRead();
    void judge();
    void answerWrongPassword();
    void send();
    void closeAfterAnswer();
    void finish(const QString &reason);

    std::unique_ptr<QTcpSocket> socket;
    PasswordStore *passwords;
    AttemptLimiter *limiter;
    HandshakeLimits limits;
    QHostAddress peer;
    RfbHandshake handshake;
    QByteArray input;
    QString refusal; ///< why the client was refused
    QTimer deadline;
    bool isFinished = false;
};
