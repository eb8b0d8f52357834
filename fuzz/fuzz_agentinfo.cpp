// SPDX-License-Identifier: MIT
#include "engine/agentinfo.h"
#include "engine/session.h"
#include "fuzz/stateserver.h"
#include "fuzz/target.h"
#include "support/datetimetext.h"
#include "support/json.h"

using namespace Qt::StringLiterals;

namespace {

/** A record in which every value that an agent reports differs from that of a new record. */
Session record()
{
    Session session;
    session.directory = u"/somewhere"_s;
    session.started = QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5));
    session.lastConnect = session.started.addSecs(1);
    session.lastDisconnect = session.started.addSecs(2);
    session.clients = 7;
    session.passwords = QStringList{u"before"_s};
    session.screenSize = QSize(8, 9);
    return session;
}

bool isSame(const Session &a, const Session &b)
{
    return a.directory == b.directory && a.started == b.started && a.lastConnect == b.lastConnect &&
           a.lastDisconnect == b.lastDisconnect && a.clients == b.clients && a.passwords == b.passwords &&
           a.screenSize == b.screenSize && a.exited == b.exited && a.exitCode == b.exitCode;
}

/** A time is read only from a string, and is null if the string is not a time. */
QDateTime expectedTime(const QDateTime &before, const Json::Value &value)
{
    if (!value.isString()) {
        return before;
    }
    const QDateTime time = dateTimeFromText(stringFromJson(value));
    FUZZ_CHECK(time.isNull() || dateTimeToText(time) == stringFromJson(value));
    return time;
}

QStringList expectedPasswords(const QStringList &before, const Json::Value &state)
{
    if (!state.isObject() || !state.isMember("Passwords")) {
        return before;
    }
    QStringList passwords;
    if (state["Passwords"].isArray()) {
        for (const Json::Value &password : state["Passwords"]) {
            if (password.isString()) {
                passwords.append(stringFromJson(password));
            }
        }
    }
    return passwords;
}

Session expectedRecord(const Json::Value &state)
{
    Session session = record();
    session.started = expectedTime(session.started, member(state, "Started"));
    session.lastConnect = expectedTime(session.lastConnect, member(state, "LastConnect"));
    session.lastDisconnect = expectedTime(session.lastDisconnect, member(state, "LastDisconnect"));
    session.passwords = expectedPasswords(session.passwords, state);
    if (member(state, "Clients").isInt()) {
        session.clients = member(state, "Clients").asInt();
    }
    if (member(state, "ScreenWidth").isInt() && member(state, "ScreenHeight").isInt()) {
        session.screenSize = QSize(member(state, "ScreenWidth").asInt(), member(state, "ScreenHeight").asInt());
    }
    return session;
}

void fuzzAgentInfo(const QByteArray &input)
{
    static auto *const agent = new StateServer;
    agent->tell(input);

    Session session = record();
    QString error;
    const bool answered = readAgentInfo(&session, agent->path(), &error);
    Json::Value state;
    const bool isJson = parseJson(input, &state);
    FUZZ_CHECK(answered == error.isEmpty());
    if (!answered) {
        // On a busy machine the answer may come too late.
        FUZZ_CHECK(!isJson || error == u"Failed to get the info from the session"_s);
        FUZZ_CHECK(isSame(session, record()));
        return;
    }
    FUZZ_CHECK(isJson);
    FUZZ_CHECK(isSame(session, expectedRecord(state)));
}

} // namespace

ZARVO_FUZZ(fuzzAgentInfo)
