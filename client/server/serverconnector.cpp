// SPDX-License-Identifier: MIT
#include "client/server/serverconnector.h"

#include "client/server/certificatepair.h"
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

/** A first start makes a key, which takes seconds on a slow machine. */
constexpr auto kStartTimeout = 60s;

/** Servers that follow each other so fast have a reason to be given up. */
constexpr int kMaxServers = 5;

/** How often the files are looked at while a server starts: nobody tells us that it is ready. */
constexpr auto kLookInterval = 10ms;

/**
 * A start beside another one ends at once and without a word. When nothing has come of the other one after this
 * time, for it was that of a server about to end, it is tried again.
 */
constexpr auto kRestartPause = 1s;

/** After this time without a trace of the other one, and as many starts, it is none that is about to end. */
constexpr auto kTracelessTime = 5s;
constexpr int kTracelessStarts = 2;

QString otherServerText()
{
    QStringList pids;
    for (const qint64 pid : serversOfSameUser()) {
        pids.append(QString::number(pid));
    }
    const QString which = pids.isEmpty() ? QString() : u" (process %1)"_s.arg(pids.join(u", "_s));
    return u"A server of USER=%1 runs already with other files%2."_s.arg(qEnvironmentVariable("USER"), which);
}

/** Tells one server that is about to start or end, of which files speak, from one that keeps its files elsewhere. */
class Traceless
{
public:
    Traceless() { since.start(); }

    /** Called at each look at the files. */
    void see(ServerState trace)
    {
        if (trace != ServerState::Missing && trace != ServerState::Stale) {
            starts = 0;
            since.start();
        }
    }
    /** Called when a start has ended without a word. */
    void countStart() { ++starts; }

    [[nodiscard]] bool isProved() const
    {
        return starts >= kTracelessStarts && std::chrono::milliseconds(since.elapsed()) >= kTracelessTime;
    }

private:
    QElapsedTimer since;
    int starts = 0;
};

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
    QElapsedTimer total;
    QElapsedTimer sinceStart;
    Traceless traceless;
    total.start();
    QString error;
    const auto launch = [&] {
        sinceStart.start();
        return launcher.start(files.userPath(), &error);
    };
    if (start == Start::Allowed && !launch()) {
        return fail(failure, ExitCode::NoServer, error + u'.');
    }
    while (std::chrono::milliseconds(total.elapsed()) < kStartTimeout && !client->isLate()) {
        serveEvents(kLookInterval);
        const bool launched = !launcher.isRunning();
        const Attempt result = attempt(client, failure);
        if (result != Attempt::NotYet) {
            return result == Attempt::Connected;
        }
        const bool hopeless = launched && last.state != ServerState::Starting;
        traceless.see(last.state);
        if (hopeless && start == Start::Forbidden) {
            return fail(failure, ExitCode::NoServer, last.detail + u'.'); // what was there has ended
        }
        if (hopeless && !launcher.messages().isEmpty()) {
            return fail(failure, ExitCode::NoServer,
                        u"The server does not start:\n%1"_s.arg(launcher.messages().trimmed()));
        }
        if (!hopeless || std::chrono::milliseconds(sinceStart.elapsed()) <= kRestartPause) {
            continue;
        }
        traceless.countStart();
        if (traceless.isProved()) {
            return fail(failure, ExitCode::NoServer, otherServerText());
        }
        if (!launch()) {
            return fail(failure, ExitCode::NoServer, error + u'.');
        }
    }
    return fail(failure, client->isLate() ? ExitCode::TimedOut : ExitCode::NoServer,
                u"The server did not start in time: %1."_s.arg(last.detail));
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
