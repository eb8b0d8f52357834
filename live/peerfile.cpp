// SPDX-License-Identifier: MIT
#include "live/peerfile.h"

#include "base/logging.h"
#include "support/json.h"
#include "support/privatefile.h"

#include <QFile>

namespace {

Json::Value sessionsToJson(const QList<SessionInfo> &sessions)
{
    Json::Value array(Json::arrayValue);
    for (const SessionInfo &info : sessions) {
        Json::Value session(Json::objectValue);
        session["id"] = jsonString(info.id);
        session["location"] = jsonString(info.location.toString()); // as clients get it in the list
        array.append(session);
    }
    return array;
}

QByteArray contentFor(const QMap<QString, QList<SessionInfo>> &lists)
{
    Json::Value array(Json::arrayValue);
    for (auto list = lists.begin(); list != lists.end(); ++list) {
        const qsizetype colon = list.key().lastIndexOf(u':');
        Json::Value peer(Json::objectValue);
        peer["address"] = jsonString(list.key().left(colon));
        peer["port"] = list.key().mid(colon + 1).toUShort();
        peer["sessions"] = sessionsToJson(list.value());
        array.append(peer);
    }
    return writeJson(array);
}

} // namespace

PeerFile::PeerFile(const QString &path_)
    : path(path_)
{
    QFile::remove(path);
}

void PeerFile::write(const QMap<QString, QList<SessionInfo>> &lists)
{
    const QByteArray content = lists.isEmpty() ? QByteArray() : contentFor(lists);
    if (content == written) {
        return; // most announcements repeat what is known
    }
    QString error;
    if (content.isEmpty()) {
        QFile::remove(path);
    } else if (!writePrivateFile(path, content, &error)) {
        logMessage(LogWarning, error);
        QFile::remove(path); // without the file clients trust no location, with an old one they could trust a wrong one
        written.clear();
        return;
    }
    written = content;
}
