// SPDX-License-Identifier: MIT
#include "workers/sessionupdater.h"

#include "live/sessionstore.h"
#include "rpc/netstring.h"
#include "support/json.h"

using namespace std::chrono_literals;

namespace {

QByteArray updateFrame(const QList<SessionInfo> &sessions)
{
    Json::Value notification(Json::objectValue);
    notification["jsonrpc"] = "2.0";
    notification["method"] = "UpdateSessions";
    notification["params"] = sessionListToJson(sessions);
    return encodeNetString(writeJson(notification));
}

} // namespace

SessionUpdater::SessionUpdater(SessionStore *store_, QObject *parent)
    : PeriodicWorker(400ms, parent)
    , store(store_)
{
}

SessionUpdater::~SessionUpdater()
{
    stop();
}

void SessionUpdater::doWork()
{
    QList<SessionInfo> sessions;
    store->refreshAll(sessions);
    const QByteArray message = updateFrame(sessions);
    if (message == lastMessage) {
        return;
    }
    lastMessage = message;
    QMetaObject::invokeMethod(
        this, [this, message] { sendUpdatesHelper(message); }, Qt::QueuedConnection);
}

void SessionUpdater::sendUpdatesHelper(QByteArray bytes)
{
    emit sendUpdates(bytes);
}
