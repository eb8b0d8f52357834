// SPDX-License-Identifier: MIT
#include "agent/door/doorprocess.h"

#include "agent/applications/spawn.h"
#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"
#include "base/logging.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <string_view>
#include <utility>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

std::string_view view(const QByteArray &bytes)
{
    return {bytes.constData(), static_cast<size_t>(bytes.size())};
}

} // namespace

DoorProcess::DoorProcess(QByteArray program_, QObject *parent)
    : QObject(parent)
    , program(std::move(program_))
{
}

DoorProcess::~DoorProcess()
{
    stop();
}

void DoorProcess::setCertificate(const QByteArray &pem)
{
    certificate = pem;
    if (socket != -1 && !sendPacket(socket, DoorPacket::kCertificate + std::string(view(certificate)))) {
        stop();
    }
}

bool DoorProcess::receive(const VisitorOrder &order, int client, int control, QString *error)
{
    if (socket != -1 && sendPacket(socket, order.toPacket(), {client, control})) {
        return true;
    }
    // It does not run yet, or it has died, which its notifier has not told yet.
    stop();
    if (!start(error)) {
        return false;
    }
    if (!sendPacket(socket, order.toPacket(), {client, control})) {
        *error = u"Failed to hand a visitor over: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    return true;
}

void DoorProcess::end(quint32 id)
{
    if (socket != -1 && !sendPacket(socket, endPacket(id))) {
        stop(); // it takes no orders, and its visitors end with it
    }
}

bool DoorProcess::start(QString *error)
{
    std::array<int, 2> ends = {};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        *error = u"Failed to create a socket pair: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    SpawnRequest request;
    request.program = program;
    request.arguments = {"session-door"};
    // It gets no environment: an attacker who reads its memory finds none of the user's secrets.
    request.inherited = {ends[1]};
    const pid_t started = spawnProcess(request, error);
    ::close(ends[1]);
    if (started == -1) {
        ::close(ends[0]);
        return false;
    }
    // The queue holds few packets, and the program takes each at once. Never wait long: the session stands meanwhile.
    constexpr timeval kLongestWait = {0, 200000};
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
    process = started;
    socket = ends[0];
    notifier = std::make_unique<QSocketNotifier>(socket, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &DoorProcess::Notifier_activated);
    setCertificate(certificate);
    return socket != -1;
}

void DoorProcess::stop()
{
    if (socket != -1) {
        notifier->setEnabled(false);       // its socket is closed before it is
        notifier.release()->deleteLater(); // we may be in its signal
        ::close(std::exchange(socket, -1));
        ::kill(process, SIGKILL); // its visitors end with it; not reaped before, because only the event loop does that
    }
}

void DoorProcess::Notifier_activated()
{
    const std::optional<std::string> packet = receivePacket(socket);
    if (!packet) {
        logMessage(LogWarning, u"The process that receives visitors has ended"_s);
        stop();
        return;
    }
    const int done = packet->size() == 2 && packet->front() == DoorPacket::kConfined ? packet->back() : 0;
    if (done != (kCallsAreFiltered | kFilesAreHidden) && !std::exchange(hasWarned, true)) {
        logMessage(LogWarning, u"The kernel cannot confine the processes that receive visitors completely: %1"_s.arg(
                                   (done & kCallsAreFiltered) != 0 ? u"it has no Landlock"_s
                                                                   : u"it does not filter their system calls"_s));
    }
}
