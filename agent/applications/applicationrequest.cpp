// SPDX-License-Identifier: MIT
#include "agent/applications/applicationrequest.h"

#include "agent/applications/applicationdoor.h"
#include "support/localendpoint.h"

#include <cerrno>
#include <chrono>

using namespace Qt::StringLiterals;

namespace {

constexpr std::chrono::seconds kDeadline(10);

} // namespace

ApplicationRequest::ApplicationRequest(QObject *parent)
    : QObject(parent)
{
    connect(&socket, &QLocalSocket::readyRead, this, &ApplicationRequest::Socket_readyRead);
    connect(&socket, &QLocalSocket::disconnected, this, &ApplicationRequest::Socket_disconnected);
    connect(&deadline, &QTimer::timeout, this, [this] { finish(u"The agent of this session did not answer"_s); });
    deadline.setSingleShot(true);
}

ApplicationRequest::~ApplicationRequest()
{
    socket.disconnect(this); // its destructor closes it, and our slots must not run then
}

void ApplicationRequest::send(const QString &path, const QByteArray &commandLine)
{
    const auto finishLater = [this](const QString &error) {
        QTimer::singleShot(0, this, [this, error] { finish(error); });
    };
    if (commandLine.size() > kMaxCommandBytes) {
        finishLater(u"The command line is too long"_s);
        return;
    }
    const int descriptor = connectLocalSocket(path);
    if (descriptor == -1) {
        finishLater(u"Failed to reach the agent of this session at \"%1\": %2"_s.arg(path, qt_error_string(errno)));
        return;
    }
    deadline.start(kDeadline);
    socket.setReadBufferSize(kMaxAnswerBytes);
    socket.setSocketDescriptor(descriptor);
    socket.write(commandLine + kCommandEnd);
}

void ApplicationRequest::Socket_readyRead()
{
    answer += socket.read(kMaxAnswerBytes - answer.size());
}

void ApplicationRequest::Socket_disconnected()
{
    Socket_readyRead();
    if (answer == kCommandAccepted) {
        finish({});
    } else if (answer.isEmpty()) {
        finish(u"The agent of this session closed the connection"_s);
    } else {
        finish(QString::fromUtf8(answer));
    }
}

void ApplicationRequest::finish(const QString &error)
{
    if (!isFinished) {
        isFinished = true;
        deadline.stop();
        emit finished(error);
    }
}
