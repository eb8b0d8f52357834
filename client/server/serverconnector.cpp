// SPDX-License-Identifier: MIT
#include "client/server/serverconnector.h"

#include "client/server/certificatepair.h"
#include "client/server/connectionjudge.h"
#include "client/server/serverlauncher.h"
#include "client/server/serverprocess.h"
#include "client/terminal/eventwait.h"
#include "client/terminal/progress.h"
#include "support/credentials.h"

#include <QElapsedTimer>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** A running server answers within milliseconds; an overloaded machine may need seconds. */
constexpr auto kConnectTimeout = 10s;

/** Bounds the retries when a new server has replaced the last one at every attempt. */
constexpr int kMaxAttempts = 5;

/** Between two attempts while a server starts. We poll its files, because nothing notifies us when it is ready. */
constexpr auto kAttemptInterval = 10ms;

QString otherServersText()
{
    QStringList pids;
    for (const qint64 pid : serversOfSameUser()) {
        pids.append(QString::number(pid));
    }
    const QString which = pids.isEmpty() ? QString() : u" (process %1)"_s.arg(pids.join(u", "_s));
    return u"A server of USER=%1 already runs with other files%2."_s.arg(qEnvironmentVariable("USER"), which);
}

} // namespace

ServerConnector::ServerConnector(const ServerFiles &files_)
    : files(files_)
{
}

bool ServerConnector::connect(RpcClient *client, Start start, Failure *failure)
{
    switch (attempt(client, failure)) {
    case Attempt::Connected:
        return true;
    case Attempt::Failed:
        return false;
    case Attempt::NotYet:
        break;
    }
    // Waiting for a server that is starting already is allowed even if we may not start one.
    if (start == Start::Forbidden && last.state != ServerState::Starting) {
        return fail(failure, ExitCode::NoServer, last.detail + u'.');
    }
    return connectToStarting(client, start, failure);
}

bool ServerConnector::connectToStarting(RpcClient *client, Start start, Failure *failure)
{
    const Progress progress(u"Starting the server"_s);
    ServerLauncher launcher;
    ConnectionJudge judge(start == Start::Allowed, otherServersText);
    QElapsedTimer total;
    total.start();
    bool isLaunching = false;
    while (true) {
        const ConnectionJudge::Verdict verdict = judge.judge({.time = std::chrono::milliseconds(total.elapsed()),
                                                              .server = last,
                                                              .isLaunching = isLaunching,
                                                              .launchMessages = launcher.messages(),
                                                              .isLate = client->isLate()});
        if (verdict.action == ConnectionJudge::Action::GiveUp) {
            *failure = verdict.failure;
            return false;
        }
        QString error;
        if (verdict.action == ConnectionJudge::Action::Start && !launcher.start(files.userPath(), &error)) {
            return fail(failure, ExitCode::NoServer, error + u'.');
        }
        serveEvents(kAttemptInterval); // lets the launcher start the program and read its messages
        // Asked before the files are read: if the program has ended by now, the files show what it has achieved.
        isLaunching = launcher.isRunning();
        const Attempt result = attempt(client, failure);
        if (result != Attempt::NotYet) {
            return result == Attempt::Connected;
        }
    }
}

ServerConnector::Attempt ServerConnector::attempt(RpcClient *client, Failure *failure)
{
    Attempt result = attemptOnce(client, failure);
    // A failure counts only if the files still show the same server: a replaced one may have failed while it ended.
    for (int count = 1; count < kMaxAttempts; ++count) {
        if (result == Attempt::Connected || last.state != ServerState::Running || files.readStatus().isSameAs(last)) {
            break;
        }
        result = attemptOnce(client, failure);
    }
    return result;
}

ServerConnector::Attempt ServerConnector::attemptOnce(RpcClient *client, Failure *failure)
{
    // Read once per attempt: a server may change its files meanwhile, and all decisions must fit one reading.
    last = files.readStatus();
    if (last.state == ServerState::Unreadable) {
        fail(failure, ExitCode::NoServer, last.detail + u'.');
        return Attempt::Failed;
    }
    if (last.state != ServerState::Running) {
        return Attempt::NotYet;
    }
    Credentials credentials;
    if (!readCredentials(&credentials, failure)) {
        return Attempt::Failed;
    }
    QString error;
    switch (client->connectTo(last.port, credentials, kConnectTimeout, &error)) {
    case RpcClient::Outcome::Connected:
        return Attempt::Connected;
    case RpcClient::Outcome::Refused:
        last.detail = error;
        return Attempt::NotYet;
    case RpcClient::Outcome::TimedOut:
        fail(failure, ExitCode::TimedOut, error + u'.');
        return Attempt::Failed;
    case RpcClient::Outcome::Distrust:
        break;
    }
    fail(failure, ExitCode::CertificateRefused,
         u"%1. If the certificate was exchanged since the server (process %2) started, restart it: "
         "zarvoctl server stop"_s.arg(error)
             .arg(last.pid));
    return Attempt::Failed;
}

bool ServerConnector::readCredentials(Credentials *credentials, Failure *failure) const
{
    QString error;
    if (!::readCredentials(files.keyPath(), files.certificatePath(), &credentials->key, &credentials->certificate,
                           &error)) {
        return fail(failure, ExitCode::CertificateRefused, error + u'.');
    }
    return belongTogether(credentials->certificate.toPem(), credentials->key.toPem()) ||
           fail(failure, ExitCode::CertificateRefused,
                u"The certificate and the key do not belong together: \"%1\" and \"%2\"."_s.arg(files.certificatePath(),
                                                                                                files.keyPath()));
}
