// SPDX-License-Identifier: MIT
#include "client/sessions/clientcontext.h"

#include "client/sessions/sessiontarget.h"
#include "support/json.h"

#include <QDir>
#include <QHostInfo>

using namespace Qt::StringLiterals;

namespace {

/** Bounds the retries. Each session that ends may spoil one list, and no host has this many sessions. */
constexpr int kMaxLists = 1000;

} // namespace

ClientContext::ClientContext(Console &console_, const Settings &settings_)
    : console(console_)
    , settings(settings_)
    // The server works in the root directory, so a relative user path starts there.
    , files(QDir::root().absoluteFilePath(settings_.userPath))
{
}

bool ClientContext::connectToServer(ServerConnector::Start start, Failure *failure)
{
    if (client.isConnected()) {
        return true;
    }
    ServerConnector connector(files);
    const bool isConnected = connector.connect(&client, start, failure);
    server = connector.status();
    return isConnected;
}

bool ClientContext::list(const QString &method, SessionList *sessions, Failure *failure)
{
    Json::Value result;
    for (int attempt = 0; attempt < kMaxLists; ++attempt) {
        if (client.call(method, {}, &result, failure)) {
            *sessions = entriesFromJson(result);
            return true;
        }
        // A session that ends while the server makes the list fails the whole request; the next list is without it.
        if (failure->code != ExitCode::NoSuchSession) {
            return false;
        }
    }
    return false;
}

bool ClientContext::listLocal(SessionList *sessions, Failure *failure)
{
    return list(u"Live.ListLocalSessions"_s, sessions, failure);
}

bool ClientContext::listAll(SessionList *sessions, Failure *failure)
{
    return list(u"Live.ListSessions"_s, sessions, failure);
}

bool ClientContext::findLocal(const QString &target, SessionEntry *found, Failure *failure)
{
    SessionList sessions;
    if (!listLocal(&sessions, failure)) {
        return false;
    }
    if (findSession(sessions, target, found, failure)) {
        return true;
    }
    SessionEntry elsewhere;
    Failure ignored;
    if (failure->code == ExitCode::NoSuchSession && !target.isEmpty() && listAll(&sessions, &ignored) &&
        findSession(sessions, target, &elsewhere, &ignored)) {
        return fail(failure, ExitCode::WrongState,
                    u"Session %1 is on the host \"%2\"; run zarvoctl there."_s.arg(elsewhere.id, elsewhere.host()));
    }
    return false;
}

bool ClientContext::callWithId(const QString &method, const QString &id, Json::Value *result, Failure *failure)
{
    return client.call(method, jsonTexts({id}), result, failure);
}

Json::Value jsonTexts(const QStringList &texts)
{
    Json::Value array(Json::arrayValue);
    for (const QString &text : texts) {
        array.append(jsonString(text));
    }
    return array;
}

QString localHostName()
{
    return QHostInfo::localHostName();
}
