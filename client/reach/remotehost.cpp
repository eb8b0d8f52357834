// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"

#include "client/reach/childrun.h"
#include "client/reach/sshcommand.h"
#include "client/terminal/textwidth.h"
#include "contract/sessionid.h"
#include "support/json.h"

#include <QRegularExpression>
#include <QUrl>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Time for a user to type a pass phrase, and for the remote server and agent to answer. */
constexpr auto kOfferTimeout = 180s;

constexpr int kLastExitCode = static_cast<int>(ExitCode::NoViewer);

/** Locations come from other hosts, so they must contain no ssh option and no shell syntax. */
bool isSafe(const QString &name)
{
    static const QRegularExpression form(u"\\A[A-Za-z0-9_][A-Za-z0-9_.:%-]*\\z"_s);
    return form.match(name).hasMatch();
}

/** The host in the case in which it is written. QUrl lowercases it, but ssh compares names in its settings by case. */
QString writtenHost(const QString &location, const QUrl &url)
{
    static const QRegularExpression form(u"\\A[^:/]+://(?:[^@/]*@)?([^@/:]+)(?::[0-9]*)?(?:/|\\z)"_s);
    const QString written = form.match(location).captured(1);
    return written.compare(url.host(), Qt::CaseInsensitive) == 0 ? written : url.host();
}

bool failId(const QString &id, Failure *failure)
{
    return fail(failure, ExitCode::NoSuchSession, u"\"%1\" is not a session id."_s.arg(printable(id)));
}

} // namespace

std::unique_ptr<RemoteHost> RemoteHost::fromLocation(const QString &location)
{
    const QUrl url(location);
    if (url.scheme() != "ssh"_L1 || !isSafe(url.host()) || (!url.userName().isEmpty() && !isSafe(url.userName()))) {
        return nullptr;
    }
    std::unique_ptr<RemoteHost> made(new RemoteHost);
    made->user = url.userName();
    made->host = writtenHost(location, url);
    made->port = url.port();
    return made;
}

bool RemoteHost::requestOffer(const QString &id, ConnectionOffer *offer, Failure *failure) const
{
    if (!isValidSessionId(id)) {
        return failId(id, failure);
    }
    ChildRun ssh;
    const QStringList remoteCommand = {u"zarvoctl"_s, u"connect"_s, u"--print"_s, u"--json"_s, u"--no-start"_s, id};
    if (!ssh.run(sshTo(remoteCommand), kOfferTimeout)) {
        return fail(failure, ssh.timedOut() ? ExitCode::TimedOut : ExitCode::NoServer,
                    u"Failed to reach the host \"%1\": %2."_s.arg(host, ssh.problem()));
    }
    if (ssh.exitCode() != 0) {
        *failure = explain(ssh.exitCode(), ssh.errorOutput());
        return false;
    }
    Json::Value answer;
    ConnectionOffer made;
    // A login script of the remote host may print text before the answer.
    if (!parseJson(ssh.output().mid(ssh.output().indexOf('{')), &answer) || !made.readAnswer(answer)) {
        return fail(failure, ExitCode::SessionFailed, u"The answer of the host \"%1\" is invalid."_s.arg(host));
    }
    made.id = id;
    made.host = host;
    *offer = made;
    return true;
}

bool RemoteHost::pipeCommand(const QString &id, QStringList *command, Failure *failure) const
{
    if (!isValidSessionId(id)) {
        return failId(id, failure);
    }
    *command = sshTo({u"zarvoctl"_s, u"pipe"_s, u"--no-start"_s, id});
    return true;
}

Failure RemoteHost::explain(int exitCode, const QString &errors) const
{
    if (exitCode == kSshFailed) {
        return {ExitCode::NoServer, u"Failed to reach the host \"%1\": %2"_s.arg(host, lastLine(errors))};
    }
    if (exitCode == kCommandNotFound) {
        return {ExitCode::NoServer, u"There is no zarvoctl on the search path of the host \"%1\"."_s.arg(host)};
    }
    if (exitCode == static_cast<int>(ExitCode::Usage)) {
        return {ExitCode::NoServer, u"The zarvoctl of the host \"%1\" is too old for this one."_s.arg(host)};
    }
    const ExitCode code =
        exitCode > 0 && exitCode <= kLastExitCode ? static_cast<ExitCode>(exitCode) : ExitCode::SessionFailed;
    return {code, u"%1: %2"_s.arg(host, lastLine(errors))};
}

QStringList RemoteHost::sshTo(const QStringList &remoteCommand) const
{
    QStringList options;
    if (port > 0) {
        options << u"-p"_s << QString::number(port);
    }
    if (!user.isEmpty()) {
        options << u"-l"_s << user;
    }
    return guardedSsh(options, host, remoteCommand);
}
