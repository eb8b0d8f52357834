// SPDX-License-Identifier: MIT
#include "agent/applications/applicationdoor.h"

#include "base/logging.h"

#include <QLocalSocket>
#include <QTimer>

#include <chrono>
#include <utility>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr std::chrono::seconds kDeadline(5);

/** One connection of start-app, from accept to close. Deletes itself. */
class CommandReader final : public QObject
{
public:
    CommandReader(int descriptor, ApplicationDoor::Start start_, QObject *parent)
        : QObject(parent)
        , start(std::move(start_))
    {
        connect(&socket, &QLocalSocket::readyRead, this, &CommandReader::Socket_readyRead);
        connect(&socket, &QLocalSocket::disconnected, this, &QObject::deleteLater);
        QTimer::singleShot(kDeadline, this, &QObject::deleteLater);
        socket.setReadBufferSize(kMaxCommandBytes + 1);
        socket.setSocketDescriptor(descriptor);
    }

    ~CommandReader() override
    {
        socket.disconnect(this); // its destructor closes it, and our slots must not run then
    }

private:
    void Socket_readyRead()
    {
        if (isAnswered) {
            return;
        }
        command += socket.read(kMaxCommandBytes + 1 - command.size());
        const qsizetype end = command.indexOf(kCommandEnd);
        if (end >= 0) {
            answer(run(command.first(end)));
        } else if (command.size() > kMaxCommandBytes) {
            answer("The command line is too long");
        }
    }

    QByteArray run(const QByteArray &commandLine)
    {
        if (commandLine.trimmed().isEmpty()) {
            return "The command line is empty";
        }
        QString error;
        if (start(commandLine, &error)) {
            return kCommandAccepted;
        }
        logMessage(LogWarning, error);
        return error.toUtf8();
    }

    void answer(const QByteArray &text)
    {
        isAnswered = true;
        socket.write(text.left(kMaxAnswerBytes));
        socket.disconnectFromServer();
    }

    ApplicationDoor::Start start;
    QLocalSocket socket;
    QByteArray command;
    bool isAnswered = false;
};

} // namespace

ApplicationDoor::ApplicationDoor(Start start_, QObject *parent)
    : QObject(parent)
    , start(std::move(start_))
{
    connect(&endpoint, &LocalEndpoint::accepted, this, &ApplicationDoor::Endpoint_accepted);
}

bool ApplicationDoor::listen(const QString &path, QString *error)
{
    return endpoint.listen(path, error);
}

void ApplicationDoor::Endpoint_accepted(int descriptor)
{
    if (connections >= kMaxConnections) {
        ::close(descriptor);
        return;
    }
    ++connections;
    auto *const reader = new CommandReader(descriptor, start, this);
    connect(reader, &QObject::destroyed, this, [this] { --connections; });
}
