// SPDX-License-Identifier: MIT
#include "client/server/rpcclient.h"

#include "contract/rpcerror.h"
#include "contract/sessionerror.h"
#include "rpc/netstring.h"
#include "rpc/rpcmessage.h"
#include "rpc/tlsrules.h"
#include "support/json.h"

#include <QNetworkProxy>
#include <QSslConfiguration>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

ExitCode exitCodeFor(int errorCode)
{
    switch (errorCode) {
    case rpcErrorCode(NoSuchSession):
        return ExitCode::NoSuchSession;
    case rpcErrorCode(InvalidState):
        return ExitCode::WrongState;
    case rpcErrorCode(TimedOut):
        return ExitCode::TimedOut;
    default:
        return ExitCode::SessionFailed;
    }
}

RpcClient::Outcome describeFailure(const QSslSocket &socket, quint16 port, QString *error)
{
    switch (socket.error()) {
    case QAbstractSocket::ConnectionRefusedError:
        *error = u"Nothing listens on port %1"_s.arg(port);
        return RpcClient::Outcome::Refused;
    case QAbstractSocket::RemoteHostClosedError:
        *error = u"The program on port %1 closed the connection"_s.arg(port);
        return RpcClient::Outcome::Refused;
    default:
        *error = u"The program on port %1 is not our server: %2"_s.arg(QString::number(port), socket.errorString());
        return RpcClient::Outcome::Distrust;
    }
}

} // namespace

RpcClient::RpcClient(QObject *parent)
    : QObject(parent)
{
    connect(&socket, &QSslSocket::readyRead, this, &RpcClient::Socket_readyRead);
    connect(&socket, &QSslSocket::disconnected, this, &RpcClient::Socket_disconnected);
    // Requests are small, and delaying them to collect more gains nothing.
    connect(&socket, &QSslSocket::connected, this,
            [this] { socket.setSocketOption(QAbstractSocket::LowDelayOption, 1); });
}

RpcClient::Outcome RpcClient::connectTo(quint16 port, const Credentials &credentials, std::chrono::milliseconds timeout,
                                        QString *error)
{
    configure(credentials);
    reader = {};
    answers.clear();
    bool failed = false;
    EventWait wait([this, &failed] { return socket.isEncrypted() || failed; });
    connect(&socket, &QSslSocket::encrypted, wait.context(), [&wait] { wait.wake(); });
    connect(&socket, &QSslSocket::errorOccurred, wait.context(), [&wait, &failed] {
        failed = true;
        wait.wake();
    });
    socket.connectToHostEncrypted(u"127.0.0.1"_s, port);
    if (!wait.run(limited(timeout))) {
        socket.abort();
        *error = u"The program on port %1 does not answer"_s.arg(port);
        return Outcome::TimedOut;
    }
    if (!socket.isEncrypted()) {
        return describeFailure(socket, port, error);
    }
    if (socket.peerCertificate() != credentials.certificate) {
        socket.abort();
        *error = u"The certificate on port %1 is not our own: another server or program answers there"_s.arg(port);
        return Outcome::Distrust;
    }
    lossReason.reset();
    return Outcome::Connected;
}

std::chrono::milliseconds RpcClient::limited(std::chrono::milliseconds timeout) const
{
    return deadline.isForever() ? timeout : std::min(timeout, std::chrono::milliseconds(deadline.remainingTime()));
}

void RpcClient::configure(const Credentials &credentials)
{
    // The comparison of the certificates decides alone, so no authority is loaded and nothing is verified here.
    QSslConfiguration configuration;
    configuration.setCaCertificates({});
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    configuration.setLocalCertificate(credentials.certificate);
    configuration.setPrivateKey(credentials.key);
    requireStrongTls(&configuration);
    socket.setSslConfiguration(configuration);
    socket.setProxy(QNetworkProxy::NoProxy);
}

int RpcClient::send(const QString &method, const Json::Value &params)
{
    Json::Value request = rpcRequest(nextId, method);
    if (!params.isNull()) {
        request["params"] = params;
    }
    const QByteArray payload = writeJson(request);
    answers.insert(nextId, Json::Value());
    socket.write(encodeNetString(payload));
    return nextId++;
}

bool RpcClient::receive(int id, Json::Value *result, Failure *failure)
{
    EventWait wait([this, id] { return !answers.value(id).isNull() || lossReason.has_value(); });
    connect(this, &RpcClient::progressed, wait.context(), [&wait] { wait.wake(); });
    const bool inTime = wait.run(limited(answerTimeout));
    const Json::Value message = answers.take(id);
    if (!inTime) {
        return fail(failure, ExitCode::TimedOut, u"The server did not answer in time."_s);
    }
    if (message.isNull()) {
        return fail(failure, ExitCode::NoServer, u"The connection to the server is lost: %1"_s.arg(*lossReason));
    }
    return takeAnswer(message, result, failure);
}

bool RpcClient::takeAnswer(const Json::Value &message, Json::Value *result, Failure *failure)
{
    errorCode = 0;
    const std::optional<RpcAnswerError> error = errorOfAnswer(message);
    if (!error) {
        *result = member(message, "result");
        return true;
    }
    errorCode = error->code.value_or(-1);
    const QString text = error->message.value_or(QString());
    return fail(failure, exitCodeFor(errorCode), text.isEmpty() ? u"The server reports an error."_s : text);
}

bool RpcClient::call(const QString &method, const Json::Value &params, Json::Value *result, Failure *failure)
{
    return receive(send(method, params), result, failure);
}

void RpcClient::Socket_readyRead()
{
    reader.append(socket.readAll());
    QByteArray payload;
    FrameReader::Result result = FrameReader::Result::Partial;
    while (!lossReason && (result = reader.next(&payload)) == FrameReader::Result::Frame) {
        takeMessage(payload);
    }
    if (result == FrameReader::Result::Invalid) {
        lose(u"it sent an invalid message"_s);
    }
}

void RpcClient::takeMessage(const QByteArray &payload)
{
    Json::Value message;
    if (!parseJson(payload, &message) || !message.isObject()) {
        lose(u"it sent an invalid message"_s);
        return;
    }
    if (isSessionsUpdate(message)) {
        emit sessionsUpdated(member(message, "params"));
        return;
    }
    // Answers without a request are dropped, else a server could fill our memory with them.
    const Json::Value &id = member(message, "id");
    if (id.isInt() && answers.contains(id.asInt())) {
        answers.insert(id.asInt(), message);
        emit progressed();
    }
}

void RpcClient::Socket_disconnected()
{
    lose(u"the server closed it"_s);
}

void RpcClient::lose(const QString &reason)
{
    if (!lossReason) {
        lossReason = reason;
        socket.abort();
        emit progressed();
    }
}
