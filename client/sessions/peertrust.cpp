// SPDX-License-Identifier: MIT
#include "client/sessions/peertrust.h"

#include "client/sessions/hostlookup.h"
#include "support/filereader.h"
#include "support/hostaddress.h"
#include "support/json.h"

#include <QNetworkInterface>

#include <algorithm>
#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** The lists of hundreds of peers. A larger file is a fault or an attack. */
constexpr int kMaxFileBytes = 16 * 1024 * 1024;

/** A name service that answers does so in milliseconds; "zarvoctl list" waits for it. */
constexpr auto kLookupTimeout = 1s;

/** Bounds the threads and the questions to the name service. Sessions of further hosts are not trusted. */
constexpr qsizetype kMaxNames = 32;

bool readSessions(const Json::Value &sessions, const QHostAddress &peer, QList<PeerReport> *reports)
{
    if (!sessions.isArray()) {
        return false;
    }
    for (const Json::Value &session : sessions) {
        if (!member(session, "id").isString() || !member(session, "location").isString()) {
            return false;
        }
        reports->append({peer, stringFromJson(member(session, "id")), stringFromJson(member(session, "location"))});
    }
    return true;
}

int interfaceOf(const QHostAddress &address)
{
    bool isNumber = false;
    const int number = address.scopeId().toInt(&isNumber);
    return isNumber ? number : QNetworkInterface::interfaceIndexFromName(address.scopeId());
}

QHostAddress withoutInterface(QHostAddress address)
{
    address.setScopeId({});
    return withoutIPv4Mapping(address);
}

QList<PeerReport> readReports(const ServerFiles &files)
{
    QByteArray json;
    QString error;
    // One byte more than allowed, so that a file that is too large is cut within its text and no JSON.
    if (isSpecialFile(files.peersPath()) || !readFile(files.peersPath(), kMaxFileBytes + 1, &json, &error) ||
        json.size() > kMaxFileBytes) {
        return {};
    }
    return readPeerReports(json).value_or(QList<PeerReport>());
}

/** The hosts of locations that are names; addresses need no question. */
QStringList namesIn(const SessionList &sessions)
{
    QStringList names;
    for (const SessionEntry &session : sessions) {
        const QString host = session.host();
        if (!host.isEmpty() && QHostAddress(host).isNull() && !names.contains(host) && names.size() < kMaxNames) {
            names.append(host);
        }
    }
    return names;
}

} // namespace

std::optional<QList<PeerReport>> readPeerReports(const QByteArray &json)
{
    Json::Value peers;
    if (!parseJson(json, &peers) || !peers.isArray()) {
        return std::nullopt;
    }
    QList<PeerReport> reports;
    for (const Json::Value &peer : peers) {
        QHostAddress address;
        if (!address.setAddress(stringFromJson(member(peer, "address"))) ||
            !readSessions(member(peer, "sessions"), address, &reports)) {
            return std::nullopt;
        }
    }
    return reports;
}

bool isSameAddress(const QHostAddress &left, const QHostAddress &right)
{
    if (withoutInterface(left) != withoutInterface(right)) {
        return false;
    }
    // An address without an interface fits each of them, because names have none.
    return !left.isLinkLocal() || left.scopeId().isEmpty() || right.scopeId().isEmpty() ||
           interfaceOf(left) == interfaceOf(right);
}

void markTrust(const ServerFiles &files, SessionList *sessions)
{
    SessionList elsewhere;
    std::copy_if(sessions->begin(), sessions->end(), std::back_inserter(elsewhere),
                 [](const SessionEntry &session) { return !session.location.isEmpty(); });
    if (elsewhere.isEmpty()) {
        return;
    }
    const QList<PeerReport> reports = readReports(files);
    const QHash<QString, QList<QHostAddress>> known = lookUpHosts(namesIn(elsewhere), kLookupTimeout);
    for (SessionEntry &session : *sessions) {
        const QHostAddress literal(session.host());
        const QList<QHostAddress> addresses =
            literal.isNull() ? known.value(session.host()) : QList<QHostAddress>{literal};
        const auto confirms = [&session, &addresses](const PeerReport &report) {
            return report.id == session.id && report.location == session.location &&
                   std::any_of(addresses.begin(), addresses.end(),
                               [&report](const QHostAddress &address) { return isSameAddress(address, report.peer); });
        };
        session.trusted = session.location.isEmpty() || std::any_of(reports.begin(), reports.end(), confirms);
    }
}
