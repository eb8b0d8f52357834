// SPDX-License-Identifier: MIT
#include "agent/door/handshakeconnection.h"

#include "agent/door/attemptlimiter.h"
#include "agent/door/passwordstore.h"
#include "agent/door/vncauth.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** A handshake is 12 + 1 + 16 bytes, and a client may send its first message right after it. */
constexpr qsizetype kMaxInputBytes = 256;

constexpr char kLockedReason[] = "Too many wrong passwords, try again later";

} // namespace

HandshakeConnection::HandshakeConnection(std::unique_ptr<QTcpSocket> socket_, PasswordStore *passwords_,
                                         AttemptLimiter *limiter_, HandshakeLimits limits_, QObject *parent)
    : QObject(parent)
    , socket(std::move(socket_))
    , passwords(passwords_)
    , limiter(limiter_)
    , limits(limits_)
    , peer(socket->peerAddress())
    , handshake(newVncChallenge())
{
    socket->setReadBufferSize(kMaxInputBytes);
    connect(socket.get(), &QTcpSocket::readyRead, this, &HandshakeConnection::Socket_readyRead);
    connect(socket.get(), &QTcpSocket::disconnected, this, [this] { finish(refusal); });
    connect(&deadline, &QTimer::timeout, this, [this] { finish(u"The handshake took too long"_s); });
    deadline.setSingleShot(true);
    deadline.start(limits.longest);

    if (limiter->isLocked(peer, AttemptLimiter::Clock::now())) {
        refusal = u"Too many wrong passwords"_s;
        handshake.turnAway(kLockedReason);
    }
    send();
}

HandshakeConnection::~HandshakeConnection()
{
    if (socket) {
        socket->disconnect(this); // its destructor closes it, and our slots must not run then
    }
}

std::unique_ptr<QTcpSocket> HandshakeConnection::takeSocket(QByteArray *unread)
{
    socket->disconnect(this);
    *unread = std::exchange(input, {});
    return std::move(socket);
}

void HandshakeConnection::Socket_readyRead()
{
    if (isFinished || handshake.state() == RfbHandshake::State::Refused) {
        // Unread bytes would make the kernel reset the connection before our answer arrives.
        socket->skip(kMaxInputBytes);
        return;
    }
    if (handshake.state() == RfbHandshake::State::Judgement) {
        return; // the refusal is delayed
    }
    input += socket->read(kMaxInputBytes - input.size());
    handshake.receive(&input);
    send();
    if (handshake.state() == RfbHandshake::State::Judgement) {
        judge();
    } else if (handshake.state() == RfbHandshake::State::Refused) {
        closeAfterAnswer();
    }
}

void HandshakeConnection::judge()
{
    const AttemptLimiter::Clock::time_point now = AttemptLimiter::Clock::now();
    // Checked again, because the address may have been locked since this connection was opened.
    if (limiter->isLocked(peer, now)) {
        refusal = u"Too many wrong passwords"_s;
        handshake.refuse(kLockedReason);
        send();
        closeAfterAnswer();
        return;
    }
    const std::optional<QByteArray> password = passwords->take(handshake.challenge(), handshake.response());
    if (!password) {
        limiter->wrongPassword(peer, now);
        refusal = u"Wrong password"_s;
        QTimer::singleShot(limits.failureDelay, this, &HandshakeConnection::answerWrongPassword);
        return;
    }
    limiter->rightPassword(peer);
    handshake.accept();
    send();
    deadline.stop();
    isFinished = true;
    emit authenticated(*password);
}

void HandshakeConnection::answerWrongPassword()
{
    if (isFinished) {
        return;
    }
    handshake.refuse("Authentication failed");
    send();
    closeAfterAnswer();
}

void HandshakeConnection::send()
{
    const QByteArray bytes = handshake.output();
    if (!bytes.isEmpty()) {
        socket->write(bytes);
    }
}

void HandshakeConnection::closeAfterAnswer()
{
    if (refusal.isEmpty()) {
        refusal = u"It does not speak our protocol"_s;
    }
    // The socket closes once the answer is sent. The deadline still ends a client that does not take the answer.
    socket->disconnectFromHost();
}

void HandshakeConnection::finish(const QString &reason)
{
    if (isFinished) {
        return;
    }
    isFinished = true;
    deadline.stop();
    socket->abort();
    emit failed(reason);
}
