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

/** A server that is there answers within milliseconds; this is for a machine on its knees. */
constexpr auto kConnectTimeout = 10s;

/** Servers that follow each other so fast have a reason to be given up. */
constexpr int kMaxServers = 5;

/** How often the files are looked at while a server starts: nobody tells us that it is ready. */
constexpr auto kRetryInterval = 10ms;

QString otherServersText()
{
    QStringList pids;
    for (const qint64 pid : serversOfSameUser()) {
        pids.append(QString::number(pid));
    }
    const QString which = pids.isEmpty() ? QString() : u" (process %1)"_s.arg(pids.join(u", "_s));
    return u"A server of USER=%1 runs already with other files%2."_s.arg(qEnvironmentVariable("USER"), which);
}

/** Lets the launcher do its work for a while. */
void serveEvents(std::chrono::milliseconds time)
{
    EventWait wait([] { return false; });
    [[maybe_unused]] const bool never = wait.run(time);
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
    // A server that is about to serve needs no start, so waiting for it is allowed in any case.
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
        serveEvents(kRetryInterval);
        // Asked before the files are read: a launch that has ended by now has written everything it ever will.
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
    // Whatever is wrong with a server that is there no more is nothing that is wrong with the one there is now.
    for (int count = 1; count < kMaxServers; ++count) {
        if (result == Attempt::Connected || last.state != ServerState::Running || files.readStatus().isSameAs(last)) {
            break;
        }
        result = attemptOnce(client, failure);
    }
    return result;
}

ServerConnector::Attempt ServerConnector::attemptOnce(RpcClient *client, Failure *failure)
{
    // Looked at once: what follows is decided by the same look, for a server writes its files meanwhile.
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
    fail(failure, ExitCode::CertificateRefused, error + u'.');
    return Attempt::Failed;
}

bool ServerConnector::readCredentials(Credentials *credentials, Failure *failure) const
{
    QString error;
    if (!readCertificate(files.certificatePath(), &credentials->certificate, &error) ||
        !readPrivateKey(files.keyPath(), &credentials->key, &error)) {
        return fail(failure, ExitCode::CertificateRefused, error + u'.');
    }
    return belongTogether(credentials->certificate.toPem(), credentials->key.toPem()) ||
           fail(failure, ExitCode::CertificateRefused,
                u"Certificate and key do not belong together: \"%1\" and \"%2\"."_s.arg(files.certificatePath(),
                                                                                        files.keyPath()));
}
