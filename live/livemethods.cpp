// SPDX-License-Identifier: MIT
#include "live/livemethods.h"

#include "contract/sessionerror.h"
#include "live/livemethod.h"
#include "live/sessionstore.h"
#include "support/json.h"

#include <QCoreApplication>

#include <array>

namespace {

/** The server's version. */
class GetVersionMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &, Json::Value *result) override
    {
        *result = jsonString(QCoreApplication::applicationVersion());
        return SessionOk;
    }
};

/** The sessions of all the user's servers. */
class ListSessionsMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &, Json::Value *result) override
    {
        QList<SessionInfo> sessions;
        const int code = store->listSessions(sessions);
        *result = sessionListToJson(sessions);
        return code;
    }
};

/** The sessions of this server. Peers call it. */
class ListLocalSessionsMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &, Json::Value *result) override
    {
        QList<SessionInfo> sessions;
        const int code = store->listLocalSessions(sessions);
        *result = sessionListToJson(sessions);
        return code;
    }
};

class StartMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &values, Json::Value *result) override
    {
        const QString &geometry = values.at(2);
        QString password;
        quint16 port = 0;
        const int code = store->start(values.at(0), values.at(1), geometry, password, port);
        (*result)["geometry"] = jsonString(geometry);
        (*result)["password"] = jsonString(password);
        (*result)["port"] = port;
        return code;
    }
};

using ConnectionAction = int (SessionStore::*)(const QString &id, QString &windowMode, QString &geometry,
                                               QString &password, quint16 &port);

/** Runs an action on a session. The answer has all that a client needs to connect to it. */
int offerConnection(SessionStore *store, ConnectionAction action, const QString &id, Json::Value *result)
{
    QString windowMode;
    QString geometry;
    QString password;
    quint16 port = 0;
    const int code = (store->*action)(id, windowMode, geometry, password, port);
    (*result)["windowMode"] = jsonString(windowMode);
    (*result)["geometry"] = jsonString(geometry);
    (*result)["password"] = jsonString(password);
    (*result)["port"] = port;
    return code;
}

/** A new password for a session without a client. Blocks for seconds. */
class ResumeMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &values, Json::Value *result) override
    {
        return offerConnection(store, &SessionStore::resume, values.at(0), result);
    }
};

/** The password that a session already offers. */
class ReplayMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &values, Json::Value *result) override
    {
        return offerConnection(store, &SessionStore::replay, values.at(0), result);
    }
};

class SuspendMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &values, Json::Value *) override { return store->suspend(values.at(0)); }
};

class TerminateMethod final : public LiveMethod
{
    using LiveMethod::LiveMethod;

    int act(const QStringList &values, Json::Value *) override { return store->terminate(values.at(0)); }
};

template <typename Method>
LiveMethod *make(const LiveMethodEntry &entry, SessionStore *store)
{
    return new Method(entry, store);
}

using Parameter = LiveMethodEntry::Parameter;

constexpr std::array<Parameter, 0> kNothing = {};
constexpr std::array kId = {Parameter{"id", "The session id."}};
constexpr std::array kNewSession = {
    Parameter{"id", "The session id."},
    Parameter{"command", "The command line for the application to run."},
    Parameter{"geometry", "The width and height in \"WxH\" format for a Desktop session or \"rootless\" "
                          "for a Single Application session."},
};
constexpr auto kSessions = "An array of session objects.";
constexpr auto kConnection = "An object with the window mode, geometry, password and port number.";

/** Every method: its name, class, description, parameters and answer. */
constexpr std::array kMethods = {
    LiveMethodEntry{"Live.GetVersion", make<GetVersionMethod>, "Returns the server version.", kNothing,
                    "The server version."},
    LiveMethodEntry{"Live.ListSessions", make<ListSessionsMethod>, "Returns all sessions known to the server.",
                    kNothing, kSessions},
    LiveMethodEntry{"Live.ListLocalSessions", make<ListLocalSessionsMethod>, "Returns the sessions on the server.",
                    kNothing, kSessions},
    LiveMethodEntry{"Live.Start", make<StartMethod>, "Starts a new session.", kNewSession,
                    "An object with the geometry, password and port number."},
    LiveMethodEntry{"Live.Resume", make<ResumeMethod>, "Reconnects to a session.", kId, kConnection},
    LiveMethodEntry{"Live.Replay", make<ReplayMethod>, "Returns information about a session waiting for a connection.",
                    kId, kConnection},
    LiveMethodEntry{"Live.Suspend", make<SuspendMethod>, "Disconnects all clients from a session.", kId, nullptr},
    LiveMethodEntry{"Live.Terminate", make<TerminateMethod>, "Terminates a session.", kId, nullptr},
};

} // namespace

QMap<QString, RpcMethod *> makeLiveMethods(SessionStore *store)
{
    QMap<QString, RpcMethod *> methods;
    for (const LiveMethodEntry &entry : kMethods) {
        methods.insert(QString::fromLatin1(entry.name), entry.make(entry, store));
    }
    return methods;
}
