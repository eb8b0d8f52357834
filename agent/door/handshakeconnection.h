// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/confinedclient.h"
#include "support/peerowner.h"

#include <QHostAddress>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <memory>

class AttemptLimiter;
class DoorKey;
class PasswordStore;
class QSocketNotifier;
class Reception;

/** How long a handshake may take. A value; the defaults are the product's. */
struct HandshakeLimits
{
    std::chrono::milliseconds longest{20000};    ///< from the connection to the end of the handshake
    std::chrono::milliseconds failureDelay{500}; ///< between a wrong password and its answer
};

/** What a handshake needs of others, who outlive it. */
struct HandshakeHelpers
{
    Reception *reception = nullptr;
    DoorKey *key = nullptr;
    PasswordStore *passwords = nullptr;
    AttemptLimiter *limiter = nullptr;
};

/** Who has connected. A value. */
struct Visitor
{
    QHostAddress address;
    TcpPeer peer = TcpPeer::OtherHost;
    bool mayBePlain = false; ///< whether it may do without TLS

    /** The user's own connections are neither locked out nor dropped for the sake of others. */
    [[nodiscard]] bool isOurs() const { return peer == TcpPeer::Ours; }
};

/**
 * One connection from accept until it is authenticated or closed. We send the greeting, which is the same for
 * everybody. Once the visitor answers, a confined process reads what it sends, and asks us for a signature and for the
 * judgement on its response. It emits exactly one of its two signals, once, and serves no purpose after that. Owned by
 * the front door, lives on the main thread.
 */
class HandshakeConnection final : public QObject
{
    Q_OBJECT

public:
    /** @param client  the visitor's non-blocking socket, ours from now on */
    HandshakeConnection(int client, const Visitor &who, const HandshakeHelpers &helpers, HandshakeLimits limits,
                        QObject *parent = nullptr);
    ~HandshakeConnection() override;

    [[nodiscard]] const Visitor &visitor() const { return who; }
    /** Whether the visitor has sent something and waits for receive(). */
    [[nodiscard]] bool isWaiting() const { return hasKnocked && !isReceived(); }
    /** Starts a process for the visitor. To be called once, after knocked(). */
    void receive();
    /** Whether a process serves it, which costs more than a socket. */
    [[nodiscard]] bool isReceived() const { return visit.control != -1; }

    /**
     * Closes the connection without a signal. Not in its own signals. A notifier that fires later would use up a
     * password for nobody.
     */
    void abandon();

    /** Whether a password is used up for it. */
    [[nodiscard]] bool isAccepted() const { return !usedPassword.isEmpty(); }
    /** That password. */
    [[nodiscard]] const QByteArray &password() const { return usedPassword; }

    /** Whether the visitor uses TLS, so its process stays. After authenticated(). */
    [[nodiscard]] bool usesTls() const { return isTls; }
    /** The sockets, which are the caller's from now on. May be called once, after authenticated(). */
    [[nodiscard]] Visit takeVisit();

signals:
    /** The visitor has sent something. */
    void knocked();
    /** A process serves the visitor from now on. The receiver may destroy the connection. */
    void received();
    /** The visitor has used up @p password. */
    void authenticated(const QByteArray &password);
    /** The connection is closed. @p reason is a few words to log, or empty when there is nothing to log. */
    void failed(const QString &reason);

private:
    void Client_activated();
    void Control_activated();
    void takePacket(const std::string &packet);
    void sign(const std::string &packet);
    void judge(const QByteArray &response);
    void refuse(const std::string &reason);
    void finish(const QString &reason);
    void closeAll();

    Visitor who;
    HandshakeHelpers helpers;
    HandshakeLimits limits;
    Visit visit;
    QByteArray challenge;
    QByteArray usedPassword; ///< set once the visitor is accepted
    QString refusal;         ///< why the visitor was refused
    std::unique_ptr<QSocketNotifier> notifier;
    QTimer deadline;
    std::shared_ptr<int> interest = std::make_shared<int>(0); ///< expires when no signature is wanted any more
    bool hasKnocked = false;
    bool hasRefused = false;
    bool hasSigned = false;
    bool hasJudged = false;
    bool isInside = false; ///< the visitor has been told that it is accepted
    bool isTls = false;
    bool isFinished = false;
};
