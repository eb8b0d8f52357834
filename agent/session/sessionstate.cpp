// SPDX-License-Identifier: MIT
#include "agent/session/sessionstate.h"

#include "agent/session/sessionlog.h"
#include "support/datetimetext.h"
#include "support/json.h"

#include <algorithm>
#include <utility>

namespace {

void setDate(Json::Value *object, const char *name, const QDateTime &time)
{
    if (time.isValid()) {
        (*object)[name] = jsonString(dateTimeToText(time));
    }
}

/** Dates are written to the second. */
QDateTime wholeSecond(const QDateTime &time)
{
    return time.addMSecs(-time.time().msec());
}

} // namespace

SessionState::SessionState(SessionLog *log_, Clock clock_)
    : log(log_)
    , clock(std::move(clock_))
{
    passwordTimer.setSingleShot(true);
    QObject::connect(&passwordTimer, &QTimer::timeout, &passwordTimer, [this] { expireOverdue(); });
}

void SessionState::setReady()
{
    started = wholeSecond(clock());
    log->ready(started);
}

void SessionState::setPasswordLifetime(std::chrono::milliseconds lifetime)
{
    openPasswords.setLifetime(lifetime);
}

void SessionState::offerPassword()
{
    const PasswordStore::Added added = openPasswords.add();
    if (!added.expired.isEmpty()) {
        log->passwordExpired(QString::fromLatin1(added.expired));
    }
    log->passwordAdded(QString::fromLatin1(added.password));
    expireOverdue();
}

/** Takes back what nobody has used in time, and waits for the next one. */
void SessionState::expireOverdue()
{
    for (const QByteArray &password : openPasswords.takeOverdue()) {
        log->passwordExpired(QString::fromLatin1(password));
    }
    if (const auto end = openPasswords.nextEnd()) {
        // Rounded up, or the timer would fire a moment too early, again and again.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - PasswordStore::Clock::now());
        passwordTimer.start(std::max(left, std::chrono::milliseconds::zero())); // a timer refuses a time in the past
    }
}

void SessionState::expirePasswords()
{
    for (const QByteArray &password : openPasswords.takeAll()) {
        log->passwordExpired(QString::fromLatin1(password));
    }
}

void SessionState::clientAuthenticated(const QString &address, const QByteArray &password)
{
    lastConnect = timeAfter(lastConnect);
    ++clients;
    log->clientAuthenticated(address, lastConnect, QString::fromLatin1(password));
}

void SessionState::clientsDisconnected(const QStringList &addresses)
{
    if (addresses.isEmpty()) {
        return;
    }
    lastDisconnect = timeAfter(lastDisconnect);
    for (const QString &address : addresses) {
        --clients;
        log->clientDisconnected(address, lastDisconnect);
    }
}

void SessionState::setScreenSize(const QSize &size)
{
    if (size == screenSize) {
        return;
    }
    screenSize = size;
    log->screenResized(size);
}

QByteArray SessionState::toJson() const
{
    Json::Value object(Json::objectValue);
    setDate(&object, "Started", started);
    setDate(&object, "LastConnect", lastConnect);
    setDate(&object, "LastDisconnect", lastDisconnect);
    if (screenSize.isValid()) {
        object["ScreenWidth"] = screenSize.width();
        object["ScreenHeight"] = screenSize.height();
    }
    object["Clients"] = clients;
    Json::Value list(Json::arrayValue);
    const QList<QByteArray> passwords = openPasswords.all();
    for (const QByteArray &password : passwords) {
        list.append(jsonString(QString::fromLatin1(password)));
    }
    object["Passwords"] = list;
    return writeJson(object);
}

/**
 * The time of an event, later than @p previous unless the clock was set back. The server notices events only by their
 * date, which is precise to the second. So two events within one second need different dates, or the server would miss
 * the second one.
 */
QDateTime SessionState::timeAfter(const QDateTime &previous) const
{
    constexpr qint64 kMaxLeadSeconds = 60; // further ahead, the clock was set back, and we follow it
    const QDateTime now = wholeSecond(clock());
    const bool isTaken = previous.isValid() && now <= previous && now.secsTo(previous) < kMaxLeadSeconds;
    return isTaken ? previous.addSecs(1) : now;
}
