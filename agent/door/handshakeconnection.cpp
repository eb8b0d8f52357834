// SPDX-License-Identifier: MIT
#include "agent/door/handshakeconnection.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "agent/confined/rfbhandshake.h"
#include "agent/door/attemptlimiter.h"
#include "agent/door/doorkey.h"
#include "agent/door/passwordstore.h"
#include "agent/door/reception.h"
#include "agent/door/vncauth.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr char kLockedReason[] = "Too many wrong passwords, try again later";
constexpr char kNeedsTlsReason[] = "This session takes no unencrypted connections from other hosts. Use \"zarvoctl "
                                   "connect\", or a viewer with TLS (security type X509Vnc).";

constexpr auto kBrokenRules = "Its process broke the rules"_L1;

/** What a visitor is told that gets no offer, or takes none. */
std::string reasonFor(const VisitorOrder &order)
{
    if (order.turnsAway) {
        return kLockedReason;
    }
    return order.offersPlain ? "" : kNeedsTlsReason;
}

QString textOf(char cause)
{
    switch (static_cast<RefusalCause>(cause)) {
    case RefusalCause::TurnedAway:
        return u"Too many wrong passwords"_s;
    case RefusalCause::NothingFits:
        return u"It did not choose what was offered"_s;
    case RefusalCause::TlsFailed:
        return u"The TLS handshake failed"_s;
    case RefusalCause::WrongPassword:
        return u"Wrong password"_s;
    case RefusalCause::NotOurProtocol:
        break;
    }
    return u"It does not speak our protocol"_s;
}

} // namespace

HandshakeConnection::HandshakeConnection(int client, const Visitor &who_, const HandshakeHelpers &helpers_,
                                         HandshakeLimits limits_, QObject *parent)
    : QObject(parent)
    , who(who_)
    , helpers(helpers_)
    , limits(limits_)
    , challenge(newVncChallenge())
    , notifier(std::make_unique<QSocketNotifier>(client, QSocketNotifier::Read))
{
    static quint32 lastId = 0; // main thread only
    visit.id = ++lastId;
    visit.client = client;
    connect(notifier.get(), &QSocketNotifier::activated, this, &HandshakeConnection::Client_activated);
    connect(&deadline, &QTimer::timeout, this, [this] { finish(u"The handshake took too long"_s); });
    deadline.setSingleShot(true);
    deadline.start(limits.longest);
    // It fits into the empty buffer of a new connection.
    [[maybe_unused]] const ssize_t sent = ::send(client, kRfbGreeting, sizeof kRfbGreeting - 1, MSG_NOSIGNAL);
}

HandshakeConnection::~HandshakeConnection()
{
    notifier.reset();
    closeAll();
}

void HandshakeConnection::closeAll()
{
    interest.reset();
    if (visit.control != -1) {
        helpers.reception->end(visit.id);
        ::close(std::exchange(visit.control, -1));
    }
    if (visit.client != -1) {
        ::shutdown(visit.client, SHUT_RDWR); // the process may have it too
        ::close(std::exchange(visit.client, -1));
    }
}

void HandshakeConnection::abandon()
{
    isFinished = true;
    deadline.stop();
    notifier.reset();
    closeAll();
}

Visit HandshakeConnection::takeVisit()
{
    notifier.reset();
    return std::exchange(visit, {visit.id, -1, -1});
}

/** The visitor has sent something, or has left. Connections that send nothing cost no process. */
void HandshakeConnection::Client_activated()
{
    char byte = 0;
    const ssize_t length = ::recv(visit.client, &byte, 1, MSG_PEEK);
    if (length > 0) {
        notifier->setEnabled(false); // a process reads what has come
        hasKnocked = true;
        emit knocked();
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
        finish({});
    }
}

void HandshakeConnection::receive()
{
    std::array<int, 2> ends = {};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        finish(qt_error_string(errno));
        return;
    }
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    VisitorOrder order;
    order.id = visit.id;
    order.turnsAway = !who.isOurs() && helpers.limiter->isLocked(who.address, AttemptLimiter::Clock::now());
    order.offersTls = !helpers.key->certificatePem().isEmpty();
    order.offersPlain = who.mayBePlain;
    order.challenge.assign(challenge.constData(), static_cast<size_t>(challenge.size()));
    order.reason = reasonFor(order);
    QString error;
    const bool isReceivedNow = helpers.reception->receive(order, visit.client, ends[1], &error);
    ::close(ends[1]);
    visit.control = ends[0];
    if (!isReceivedNow) {
        finish(error);
        return;
    }
    notifier = std::make_unique<QSocketNotifier>(visit.control, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &HandshakeConnection::Control_activated);
    emit received();
}

void HandshakeConnection::Control_activated()
{
    const std::optional<std::string> packet = receivePacket(visit.control);
    if (packet) {
        takePacket(*packet);
    } else if (errno != EAGAIN || isFinished) {
        finish(refusal);
    }
}

/** The process may be in an attacker's hands, so each request counts once. */
void HandshakeConnection::takePacket(const std::string &packet)
{
    if (packet.front() == DoorPacket::kSign && !std::exchange(hasSigned, true)) {
        sign(packet);
    } else if (packet.front() == DoorPacket::kResponse && !std::exchange(hasJudged, true)) {
        judge(QByteArray(packet.data() + 1, static_cast<qsizetype>(packet.size() - 1)));
    } else if (packet.front() == DoorPacket::kInside && !usedPassword.isEmpty()) {
        isTls = packet.size() == 2 && packet[1] == DoorPacket::kOverTls;
        isInside = true;
        finish({});
    } else if (packet.front() == DoorPacket::kRefused && packet.size() == 2 && !std::exchange(hasRefused, true)) {
        refusal = refusal.isEmpty() ? textOf(packet[1]) : refusal;
        deadline.start(limits.longest); // to take the answer
    } else {
        finish(kBrokenRules);
    }
}

void HandshakeConnection::sign(const std::string &packet)
{
    const std::optional<HandshakeSignature> request = HandshakeSignature::fromPacket(packet);
    if (!request || !request->isServers()) {
        finish(kBrokenRules);
        return;
    }
    helpers.key->sign(*request, interest, [this](const std::string &signature) {
        if (!isFinished && !sendPacket(visit.control, DoorPacket::kSignature + signature)) {
            finish(refusal);
        }
    });
}

void HandshakeConnection::judge(const QByteArray &response)
{
    const AttemptLimiter::Clock::time_point now = AttemptLimiter::Clock::now();
    // Checked again, because the address may have been locked since this connection was opened.
    if (!who.isOurs() && helpers.limiter->isLocked(who.address, now)) {
        refusal = textOf(static_cast<char>(RefusalCause::TurnedAway));
        refuse(kLockedReason);
        return;
    }
    const std::optional<QByteArray> password = helpers.passwords->take(challenge, response);
    if (password) {
        helpers.limiter->rightPassword(who.address);
        usedPassword = *password;
        if (!sendPacket(visit.control, std::string{DoorPacket::kAccept})) {
            finish({});
        }
        return;
    }
    refusal = u"Wrong password"_s;
    if (!who.isOurs()) {
        helpers.limiter->wrongPassword(who.address, now);
    }
    QTimer::singleShot(limits.failureDelay, this, [this] {
        if (!isFinished) {
            refuse("Authentication failed");
        }
    });
}

void HandshakeConnection::refuse(const std::string &reason)
{
    if (!sendPacket(visit.control, DoorPacket::kRefuse + reason)) {
        finish(refusal);
    }
}

void HandshakeConnection::finish(const QString &reason)
{
    if (std::exchange(isFinished, true)) {
        return;
    }
    deadline.stop();
    notifier->setEnabled(false);       // its socket may be closed before it is
    notifier.release()->deleteLater(); // we may be in its signal
    if (!isInside) {
        // It may use TLS, so nobody must go on with it as plain text.
        ::shutdown(visit.client, SHUT_RDWR);
    }
    if (!usedPassword.isEmpty()) {
        emit authenticated(usedPassword); // also if the visitor has left meanwhile, because the password is used up
    } else {
        emit failed(reason);
    }
}
