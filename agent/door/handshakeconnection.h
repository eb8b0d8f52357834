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

/** What a handshake may take. A value; the defaults are the product's. */
struct HandshakeLimits
{
    std::chrono::milliseconds longest{20000};    ///< the whole of it, from the connection on
    std::chrono::milliseconds failureDelay{500}; ///< before a wrong password is answered
};

/**
 * One connection from its acceptance until it is authenticated or gone. Owned by the front door, lives on the main
 * thread. Exactly one of its two signals is emitted, once; the object is of no use after that.
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

    /** The socket, and what the client has sent beyond the handshake. After authenticated(), once. */
    [[nodiscard]] std::unique_ptr<QTcpSocket> takeSocket(QByteArray *unread);

signals:
    /** The client is in, and @p password is used up. */
    void authenticated(const QByteArray &password);
    /** The connection is gone. @p reason is a few words for the log; empty when there is nothing to tell. */
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
