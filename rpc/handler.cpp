// SPDX-License-Identifier: MIT
#include "rpc/handler.h"

#include "base/idletimer.h"
#include "base/logging.h"
#include "contract/rpcerror.h"
#include "rpc/clientsocket.h"
#include "rpc/netstring.h"
#include "rpc/rpcmessage.h"
#include "support/json.h"

#include <QtConcurrentRun>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

const QString kDescribe = u"system.describe"_s;

/**
 * With more unsent bytes than this a peer counts as lagging. SslResponder bounds the bytes that a socket has received
 * to the same number.
 */
constexpr qint64 kMaxUnsentBytes = 1024 * 1024;

qint64 unsentBytes(const QIODevice &device)
{
    const auto *socket = qobject_cast<const ClientSocket *>(&device);
    return device.bytesToWrite() + (socket ? socket->encryptedBytesToWrite() : 0);
}

/** Whether the device is open and the peer, if it needs admission, is admitted. */
bool isServing(const QIODevice &device)
{
    const auto *socket = qobject_cast<const ClientSocket *>(&device);
    return device.isOpen() && (!socket || socket->isAdmitted());
}

Json::Value invalidRequestError()
{
    return rpcError(RpcInvalidRequest, "Invalid JSON-RPC request.");
}

Json::Value makeResponse(const Json::Value &id)
{
    Json::Value response(Json::objectValue);
    response["jsonrpc"] = "2.0";
    response["id"] = id;
    return response;
}

/** Whether a request may have this "id". Null is refused, because errors without a known id carry it. */
bool isUsableId(const Json::Value &id)
{
    return !id.isNull() && !id.isObject() && !id.isArray();
}

bool isValidRequest(const Json::Value &request)
{
    return request.isObject() && (!hasMember(request, "id") || isUsableId(member(request, "id"))) &&
           isRpcMessage(request) && member(request, "method").isString();
}

} // namespace

Handler::Handler(QIODevice *device_, const QMap<QString, RpcMethod *> &methods_, QObject *parent)
    : QObject(parent)
    , device(device_)
    , watcher(new QFutureWatcher<void>(this))
    , methods(methods_)
{
    connect(device, &QIODevice::readyRead, this, &Handler::Device_readyRead);
    connect(device, &QIODevice::bytesWritten, this, &Handler::Device_bytesWritten);
    if (const auto *socket = qobject_cast<ClientSocket *>(device)) {
        connect(socket, &ClientSocket::encryptedBytesWritten, this, &Handler::Device_bytesWritten);
    }
    connect(watcher, &QFutureWatcherBase::finished, this, &Handler::Watcher_finished);
    delete methods.value(kDescribe);
    methods.insert(kDescribe, this);
    holdConnection();
}

Handler::~Handler()
{
    watcher->waitForFinished();
    methods.remove(kDescribe);
    qDeleteAll(methods);
    releaseConnection();
}

QByteArray Handler::processMessage(const QByteArray &payload)
{
    Json::Value root;
    Json::Value response;
    if (!parseJson(payload, &root)) {
        response = makeErrorResponse(rpcError(RpcParseError, "Parse error."), Json::nullValue);
    } else if (root.isNull() || root.isArray()) {
        response = processBatch(root); // null is an empty batch
    } else {
        response = handleRequest(root);
    }
    return response.isNull() ? QByteArray() : encodeNetString(writeJson(response));
}

bool Handler::execute(const Json::Value &, Json::Value &result)
{
    result = Json::Value(Json::objectValue);
    for (auto method = methods.cbegin(); method != methods.cend(); ++method) {
        result[method.key().toStdString()] = method.value()->describe();
    }
    return true;
}

Json::Value Handler::describe() const
{
    Json::Value description(Json::objectValue);
    description["description"] = "List the RPC methods available";
    description["parameters"] = Json::nullValue;
    description["returns"] = "Object that contains description of all methods registered";
    return description;
}

void Handler::writeToDevice(QByteArray msg)
{
    if (!isServing(*device)) {
        return;
    }
    if (peerLags()) {
        pendingUpdate = msg;
        return;
    }
    pendingUpdate.clear(); // it is older than this one
    device->write(msg);
}

void Handler::retire()
{
    retired = true;
    if (!busy) {
        device->deleteLater();
    }
}

void Handler::Device_readyRead()
{
    if (busy || retired || !isServing(*device) || peerLags()) {
        return;
    }
    QByteArray payload;
    QString error;
    int outcome = decodeNetString(buffer, payload, error);
    // Read from the device only if the buffer holds no whole frame: what waits in the device is bounded. Decode again
    // after reading, even after an error, because the missing colon may just have arrived.
    if (outcome != 0 && device->bytesAvailable() > 0) {
        buffer += device->read(device->bytesAvailable()); // readAll() would allocate 32 kB
        outcome = decodeNetString(buffer, payload, error);
    }
    if (outcome == 0) {
        startRequest(payload);
    } else if (outcome < 0) {
        logMessage(LogWarning, error);
        device->close();
    }
}

void Handler::Watcher_finished()
{
    busy = false;
    if (retired) {
        device->deleteLater();
        return;
    }
    if (!answer.isEmpty() && isServing(*device)) {
        device->write(answer);
    }
    answer.clear();
    Device_readyRead();
}

void Handler::Device_bytesWritten()
{
    if (isHeldUp) {
        // Queued, because a TLS socket emits this in the middle of its work and must not be closed there.
        QMetaObject::invokeMethod(this, &Handler::goOnAfterLag, Qt::QueuedConnection);
    }
}

void Handler::goOnAfterLag()
{
    if (peerLags()) {
        return;
    }
    isHeldUp = false;
    if (!pendingUpdate.isEmpty()) {
        device->write(std::exchange(pendingUpdate, QByteArray()));
    }
    Device_readyRead();
}

bool Handler::peerLags()
{
    const bool lags = unsentBytes(*device) > kMaxUnsentBytes;
    isHeldUp = isHeldUp || lags;
    return lags;
}

void Handler::startRequest(const QByteArray &payload)
{
    busy = true;
    watcher->setFuture(QtConcurrent::run([this, payload] { answer = processMessage(payload); }));
}

Json::Value Handler::processBatch(const Json::Value &requests)
{
    Json::Value responses; // null, so that nothing is sent, until there is an answer
    for (const Json::Value &request : requests) {
        Json::Value response = handleRequest(request);
        if (!response.isNull()) {
            responses.append(std::move(response));
        }
    }
    return responses;
}

Json::Value Handler::handleRequest(const Json::Value &request)
{
    if (!isValidRequest(request)) {
        return makeErrorResponse(invalidRequestError(), Json::nullValue);
    }
    const bool isNotification = !hasMember(request, "id");
    const Json::Value &id = member(request, "id");
    RpcMethod *method = methods.value(stringFromJson(member(request, "method")));
    if (!method) {
        return isNotification ? Json::Value() : makeErrorResponse(rpcError(RpcMethodNotFound, "Method not found."), id);
    }
    Json::Value result;
    const bool succeeded = method->execute(member(request, "params"), result);
    if (isNotification) {
        return {};
    }
    if (!succeeded) {
        return makeErrorResponse(result, id);
    }
    Json::Value response = makeResponse(id);
    response["result"] = std::move(result);
    return response;
}

Json::Value Handler::makeErrorResponse(const Json::Value &error, const Json::Value &id)
{
    Json::Value response = makeResponse(id);
    response["error"] = error;
    return response;
}
