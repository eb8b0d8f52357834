// SPDX-License-Identifier: MIT
#include "client/reach/viewersocket.h"

#include "client/sessions/sessiondirectories.h"
#include "client/terminal/eventwait.h"
#include "contract/sessiondirectory.h"
#include "support/json.h"
#include "support/localendpoint.h"

#include <QLocalSocket>

#include <cerrno>
#include <chrono>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** An agent answers in milliseconds, unless the machine is overloaded. */
constexpr auto kAnswerTimeout = 3s;
constexpr auto kRetryInterval = 20ms;
constexpr qsizetype kMaxStateBytes = 64 * 1024;

/** Everything that the program at the other end sends until it closes the connection; null if that takes too long. */
QByteArray readAll(int connection)
{
    QLocalSocket socket;
    EventWait wait([&socket] {
        return socket.state() == QLocalSocket::UnconnectedState || socket.bytesAvailable() > kMaxStateBytes;
    });
    QObject::connect(&socket, &QLocalSocket::stateChanged, wait.context(), [&wait] { wait.wake(); });
    QObject::connect(&socket, &QLocalSocket::readyRead, wait.context(), [&wait] { wait.wake(); });
    if (!socket.setSocketDescriptor(connection)) {
        ::close(connection);
        return {};
    }
    return wait.run(kAnswerTimeout) ? socket.read(kMaxStateBytes) : QByteArray();
}

} // namespace

bool ViewerSocket::open(const QString &directory, Failure *failure)
{
    if (!readSessionDisplay(directory, &display, failure)) {
        return false;
    }
    QString error;
    return folder.open(directory, &error) || fail(failure, ExitCode::SessionFailed, error + u'.');
}

bool ViewerSocket::answers() const
{
    const int connection = connectLocalSocket(folder.pathOf(name()));
    if (connection == -1) {
        return errno == EAGAIN; // others wait to be let in
    }
    ::close(connection);
    return true;
}

bool ViewerSocket::hasViewers(bool listed) const
{
    const int connection = connectLocalSocket(agentSocketPath(display));
    Json::Value state;
    if (connection == -1 || !parseJson(readAll(connection), &state)) {
        return listed;
    }
    const Json::Value &clients = member(state, "Clients");
    return clients.isInt() ? clients.asInt() > 0 : listed;
}

bool ViewerSocket::connect(int *connection, Failure *failure) const
{
    QDeadlineTimer deadline(kAnswerTimeout);
    int made = connectLocalSocket(folder.pathOf(name()));
    while (made == -1 && errno == EAGAIN && !deadline.hasExpired()) {
        serveEvents(kRetryInterval);
        made = connectLocalSocket(folder.pathOf(name()));
    }
    if (made != -1) {
        *connection = made;
        return true;
    }
    if (errno == ENOENT || errno == ECONNREFUSED) {
        return fail(failure, ExitCode::SessionFailed,
                    u"The session's agent has no socket for the user's own viewers. It needs a password: "
                    "\"zarvoctl connect --print\" prints one."_s);
    }
    return fail(failure, ExitCode::SessionFailed,
                u"Failed to connect to the session's agent: %1."_s.arg(qt_error_string(errno)));
}

QString ViewerSocket::name() const
{
    return viewerSocketName(display);
}
