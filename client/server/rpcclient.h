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

/** The user's certificate and key; the server has the same. */
struct Credentials
{
    QSslCertificate certificate;
    QSslKey key;
};

/**
 * One connection to the server. Requests can be sent ahead of their answers. Functions that wait run the event
 * loop up to their deadline. Used on the main thread.
 */
class RpcClient : public QObject
{
    Q_OBJECT

public:
    enum class Outcome {
        Connected,
        Refused,  ///< nobody listens there, or who does hangs up at once, as a server does that is about to end
        Distrust, ///< what answers is not proved to be the server
        TimedOut, ///< what answers says nothing
    };

    explicit RpcClient(QObject *parent = nullptr);

    /**
     * Connects to this host and makes sure that the other end holds the same certificate, before a byte of a
     * request is sent.
     * @param error  set unless the outcome is Connected: one sentence
     */
    [[nodiscard]] Outcome connectTo(quint16 port, const Credentials &credentials, std::chrono::milliseconds timeout,
                                    QString *error);

    /** Sends a request; @p id is what receive() wants to know. */
    int send(const QString &method, const Json::Value &params = {});

    /**
     * Waits for the answer to a request.
     *
     * @param result   set only on success
     * @param failure  set only on failure: the server's sentence and the exit code that fits its error, TimedOut,
     *                 or NoServer when the connection is lost
     */
    [[nodiscard]] bool receive(int id, Json::Value *result, Failure *failure);

    /** send() and receive() in one. */
    [[nodiscard]] bool call(const QString &method, const Json::Value &params, Json::Value *result, Failure *failure);

    [[nodiscard]] bool isConnected() const { return !lossReason; }

    /** How long receive() waits; the server itself may wait for an agent several times within one request. */
    void setAnswerTimeout(std::chrono::milliseconds timeout) { answerTimeout = timeout; }

    /** The latest end of all waits from now on, however long each may be. */
    void setDeadline(QDeadlineTimer end) { deadline = end; }

    /** Whether the deadline is over. */
    [[nodiscard]] bool isLate() const { return deadline.hasExpired(); }

    /** The error of the last answer as the server numbers it; 0 when there was none. */
    [[nodiscard]] int lastErrorCode() const { return errorCode; }

signals:
    /** The server's list of sessions has changed; null when there are none. */
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
