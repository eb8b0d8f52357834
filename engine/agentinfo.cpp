// SPDX-License-Identifier: MIT
#include "engine/agentinfo.h"

#include "engine/session.h"
#include "support/datetimetext.h"
#include "support/json.h"
#include "support/localendpoint.h"

#include <QDeadlineTimer>
#include <QLocalSocket>
#include <QThread>

#include <cerrno>
#include <chrono>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kAnswerTimeoutMs = 1000;
/** Between two attempts while the agent's queue of connections is full. Nothing tells when it has room. */
constexpr std::chrono::milliseconds kRetryInterval(5);
/** Far more than any state has. An agent that sends more counts as one that never stops sending. */
constexpr qsizetype kMaxAnswerBytes = 1024 * 1024;

/** Connects to an agent of this user. Anybody may have put a socket there, whose answer must not count. */
bool connectToAgent(const QString &socketPath, const QDeadlineTimer &deadline, QLocalSocket *socket)
{
    int descriptor = connectLocalSocket(socketPath);
    while (descriptor == -1 && errno == EAGAIN && !deadline.hasExpired()) {
        QThread::msleep(kRetryInterval.count());
        descriptor = connectLocalSocket(socketPath);
    }
    if (descriptor == -1) {
        return false;
    }
    if (!socket->setSocketDescriptor(descriptor)) {
        ::close(descriptor);
        return false;
    }
    return true;
}

bool receiveAnswer(const QString &socketPath, QByteArray *answer)
{
    const QDeadlineTimer deadline(kAnswerTimeoutMs);
    QLocalSocket socket;
    if (!connectToAgent(socketPath, deadline, &socket)) {
        return false;
    }
    bool isWaiting = true;
    while (isWaiting && socket.state() == QLocalSocket::ConnectedState && answer->size() <= kMaxAnswerBytes) {
        // The answer may have arrived in time while this process did not run: read it before giving up.
        const bool isLate = deadline.hasExpired();
        isWaiting = socket.waitForReadyRead(static_cast<int>(deadline.remainingTime())) || !isLate;
        *answer += socket.readAll();
    }
    // The answer is complete only once the agent has closed the connection.
    return socket.state() == QLocalSocket::UnconnectedState;
}

void updateTime(QDateTime *time, const Json::Value &value)
{
    if (value.isString()) {
        *time = dateTimeFromText(stringFromJson(value));
    }
}

void updatePasswords(QStringList *passwords, const Json::Value &value)
{
    passwords->clear();
    if (!value.isArray()) {
        return;
    }
    for (const Json::Value &element : value) {
        if (element.isString()) {
            passwords->append(stringFromJson(element));
        }
    }
}

void updateSession(Session *session, const Json::Value &state)
{
    updateTime(&session->started, member(state, "Started"));
    updateTime(&session->lastConnect, member(state, "LastConnect"));
    updateTime(&session->lastDisconnect, member(state, "LastDisconnect"));

    const Json::Value &width = member(state, "ScreenWidth");
    const Json::Value &height = member(state, "ScreenHeight");
    if (width.isInt() && height.isInt()) {
        session->screenSize = QSize(width.asInt(), height.asInt());
    }
    const Json::Value &clients = member(state, "Clients");
    if (clients.isInt()) {
        session->clients = clients.asInt();
    }
    if (hasMember(state, "Passwords")) {
        updatePasswords(&session->passwords, member(state, "Passwords"));
    }
}

} // namespace

bool readAgentInfo(Session *session, const QString &socketPath, QString *error)
{
    QByteArray answer;
    if (!receiveAnswer(socketPath, &answer)) {
        *error = u"Failed to get the info from the session"_s;
        return false;
    }
    Json::Value state;
    if (!parseJson(answer, &state)) {
        *error = u"Failed to parse the info from the session: %1"_s.arg("Invalid JSON"_L1);
        return false;
    }
    updateSession(session, state);
    return true;
}
