// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/eventwait.h"
#include "client/terminal/exitcode.h"
#include "rpc/framereader.h"

#include <json/value.h>

#include <QDeadlineTimer>
#include <QHash>
#include <QObject>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QString>

#include <chrono>
#include <optional>

/** The user's certificate and key. The server uses the same pair. */
struct Credentials
{
    QSslCertificate certificate;
    QSslKey key;
};

/**
 * One connection to the server. Several requests can be sent before the first answer arrives. Functions that wait run
 * the event loop up to their deadline. Used on the main thread.
 */
class RpcClient : public QObject
{
    Q_OBJECT

public:
    enum class Outcome {
        Connected,
        Refused,  ///< connection refused, or closed at once by a server that shuts down
        Distrust, ///< the other end has another certificate, or speaks no TLS
        TimedOut, ///< the handshake did not end in time
    };

    explicit RpcClient(QObject *parent = nullptr);

    /**
     * Connects to a port of this host. Checks that the other end has the same certificate, before a byte of a request
     * is sent.
     * @param error  set unless the outcome is Connected: one sentence
     */
    [[nodiscard]] Outcome connectTo(quint16 port, const Credentials &credentials, std::chrono::milliseconds timeout,
                                    QString *error);

    /** Sends a request. Returns its id, for receive(). */
    int send(const QString &method, const Json::Value &params = {});

    /**
     * Waits for the answer to a request.
     *
     * @param result   set only on success
     * @param failure  set only on failure: the server's sentence and the exit code for its error; TimedOut; or
     *                 NoServer if the connection is lost
     */
    [[nodiscard]] bool receive(int id, Json::Value *result, Failure *failure);

    /** send() and receive() in one. */
    [[nodiscard]] bool call(const QString &method, const Json::Value &params, Json::Value *result, Failure *failure);

    [[nodiscard]] bool isConnected() const { return !lossReason; }

    /** How long receive() waits. The server may wait for an agent several times within one request. */
    void setAnswerTimeout(std::chrono::milliseconds timeout) { answerTimeout = timeout; }

    /** No wait lasts beyond @p end from now on. */
    void setDeadline(QDeadlineTimer end) { deadline = end; }

    /** Whether the deadline has passed. */
    [[nodiscard]] bool isLate() const { return deadline.hasExpired(); }

    /** The server's error number in the last answer; 0 if it was a result. */
    [[nodiscard]] int lastErrorCode() const { return errorCode; }

signals:
    /** The server's list of sessions has changed; null if it is empty. */
    void sessionsUpdated(const Json::Value &sessions);

    /** An answer has arrived or the connection is lost. */
    void progressed();

private:
    [[nodiscard]] std::chrono::milliseconds limited(std::chrono::milliseconds timeout) const;
    void configure(const Credentials &credentials);
    void Socket_readyRead();
    void Socket_disconnected();
    void takeMessage(const QByteArray &payload);
    void lose(const QString &reason);
    bool takeAnswer(const Json::Value &message, Json::Value *result, Failure *failure);

    QSslSocket socket;
    FrameReader reader;
    QHash<int, Json::Value> answers; ///< by request; null until it has arrived
    std::optional<QString> lossReason = QString();
    std::chrono::milliseconds answerTimeout = std::chrono::seconds(90);
    QDeadlineTimer deadline{QDeadlineTimer::Forever};
    int nextId = 1;
    int errorCode = 0;
};
