// SPDX-License-Identifier: MIT
#include "agent/door/tcplistener.h"

#include <chrono>
#include <utility>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

constexpr int kMaxAcceptedAtOnce = 16;

/**
 * A viewer whose machine has vanished is noticed after 90 seconds of silence, or after 60 seconds in which it confirms
 * no bytes that we send.
 */
constexpr int kKeepaliveIdleSeconds = 60;
constexpr int kKeepaliveIntervalSeconds = 10;
constexpr int kKeepaliveProbes = 3;
constexpr int kUnconfirmedMilliseconds = 60000;

void setOption(int socket, int level, int option, int value)
{
    ::setsockopt(socket, level, option, &value, sizeof value);
}

} // namespace

TcpListener::TcpListener(QObject *parent)
    : QTcpServer(parent)
{
    turn.setSingleShot(true);
    turn.setInterval(0ms);
    connect(&turn, &QTimer::timeout, this, &TcpListener::acceptMore);
}

void TcpListener::incomingConnection(qintptr descriptor)
{
    const int socket = static_cast<int>(descriptor);
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepaliveIdleSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepaliveIntervalSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kKeepaliveProbes);
    setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnconfirmedMilliseconds);
    turn.start();
    if (++acceptedAtOnce >= kMaxAcceptedAtOnce) {
        setMaxPendingConnections(0); // Qt accepts until there is no room for pending connections
    }
    emit accepted(socket);
}

void TcpListener::acceptMore()
{
    if (std::exchange(acceptedAtOnce, 0) >= kMaxAcceptedAtOnce && isListening()) {
        setMaxPendingConnections(kMaxAcceptedAtOnce);
        resumeAccepting();
    }
}
