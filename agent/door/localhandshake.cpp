// SPDX-License-Identifier: MIT
#include "agent/door/localhandshake.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto kLongest = 20s;

bool sendAll(int socket, const std::string &bytes)
{
    // It fits into the buffer of a new connection.
    return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

} // namespace

LocalHandshake::LocalHandshake(int client_, QObject *parent)
    : QObject(parent)
    , client(client_)
    , handshake(RfbOffer{.none = true})
    , notifier(std::make_unique<QSocketNotifier>(client, QSocketNotifier::Read))
{
    connect(notifier.get(), &QSocketNotifier::activated, this, &LocalHandshake::Notifier_activated);
    connect(&deadline, &QTimer::timeout, this, [this] { finish(false); });
    deadline.setSingleShot(true);
    deadline.start(kLongest);
    [[maybe_unused]] const bool isSent = sendAll(client, kRfbGreeting); // a viewer that has left is noticed below
}

LocalHandshake::~LocalHandshake()
{
    notifier.reset();
    if (client != -1) {
        ::close(client);
    }
}

int LocalHandshake::takeClient()
{
    return std::exchange(client, -1);
}

void LocalHandshake::Notifier_activated()
{
    std::array<char, 64> buffer = {};
    // No byte too much, because what follows belongs to the X server.
    const ssize_t length = ::read(client, buffer.data(), handshake.wantedBytes() - input.size());
    if (length <= 0) {
        if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
            finish(false);
        }
        return;
    }
    input.append(buffer.data(), static_cast<size_t>(length));
    handshake.receive(&input);
    if (!sendAll(client, handshake.output()) || handshake.state() == RfbHandshake::State::Refused) {
        finish(false);
    } else if (handshake.state() == RfbHandshake::State::Accepted) {
        finish(true);
    }
}

void LocalHandshake::finish(bool isAgreed)
{
    deadline.stop();
    notifier->setEnabled(false);       // its socket may be closed before it is
    notifier.release()->deleteLater(); // we may be in its signal
    if (isAgreed) {
        emit agreed();
    } else {
        emit failed();
    }
}
