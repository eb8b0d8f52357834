// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"

#include "client/reach/childrun.h"
#include "client/terminal/textwidth.h"
#include "contract/sessionid.h"
#include "support/json.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QUrl>

#include <chrono>

#include <sys/un.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Time for a user to type a pass phrase, and for the remote server and agent to answer. */
constexpr auto kOfferTimeout = 180s;
constexpr auto kCloseTimeout = 5s;

constexpr int kSshFailed = 255;
constexpr int kCommandNotFound = 127;
constexpr int kLastExitCode = static_cast<int>(ExitCode::NoViewer);

QStringList sshCommand()
{
    const QStringList configured = QProcess::splitCommand(qEnvironmentVariable("ZARVO_SSH"));
    return configured.isEmpty() ? QStringList{u"ssh"_s} : configured;
}

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

/** Whether a socket may have this path, with the suffix that ssh adds while it creates the socket. */
bool isSocketPath(const QString &path)
{
    constexpr qsizetype kSuffix = 17;
    return QFile::encodeName(path).size() + kSuffix < qsizetype{sizeof(sockaddr_un::sun_path)};
}

QString lastLine(const QString &text)
{
    return printable(text.trimmed().section(u'\n', -1));
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

RemoteHost::~RemoteHost()
{
    ChildRun closing;
    [[maybe_unused]] const bool closed = closing.run(command({u"-O"_s, u"exit"_s}), kCloseTimeout);
}

bool RemoteHost::requestOffer(const QString &id, ConnectionOffer *offer, Failure *failure)
{
    if (!isValidSessionId(id)) {
        return fail(failure, ExitCode::NoSuchSession, u"\"%1\" is not a session id."_s.arg(printable(id)));
    }
    ChildRun ssh;
    const QStringList remoteCommand = {u"zarvoctl"_s, u"connect"_s, u"--print"_s, u"--json"_s, u"--no-start"_s, id};
    if (!ssh.run(command({}) + remoteCommand, kOfferTimeout)) {
        return fail(failure, ssh.timedOut() ? ExitCode::TimedOut : ExitCode::NoServer,
                    u"Failed to reach the host \"%1\": %2."_s.arg(host, ssh.problem()));
    }
    if (ssh.exitCode() == kSshFailed) {
        return fail(failure, ExitCode::NoServer,
                    u"Failed to reach the host \"%1\": %2"_s.arg(host, lastLine(ssh.errorOutput())));
    }
    if (ssh.exitCode() == kCommandNotFound) {
        return fail(failure, ExitCode::NoServer,
                    u"There is no zarvoctl on the search path of the host \"%1\"."_s.arg(host));
    }
    if (ssh.exitCode() != 0) {
        const ExitCode code =
            ssh.exitCode() <= kLastExitCode ? static_cast<ExitCode>(ssh.exitCode()) : ExitCode::SessionFailed;
        return fail(failure, code, u"%1: %2"_s.arg(host, lastLine(ssh.errorOutput())));
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

QStringList RemoteHost::streamCommand(quint16 streamPort) const
{
    return command({u"-W"_s, u"127.0.0.1:%1"_s.arg(streamPort)});
}

QStringList RemoteHost::command(const QStringList &options) const
{
    QStringList all = sshCommand();
    // Without a folder for the socket, each call opens its own connection, and ssh may ask for the pass phrase again.
    if (folder.isValid() && isSocketPath(folder.filePath(u"ssh"_s))) {
        all << u"-o"_s << u"ControlMaster=auto"_s << u"-o"_s << u"ControlPersist=60"_s << u"-o"_s
            << u"ControlPath=\"%1\""_s.arg(folder.filePath(u"ssh"_s).replace(u'%', u"%%"_s));
    }
    all << u"-T"_s;
    if (port > 0) {
        all << u"-p"_s << QString::number(port);
    }
    if (!user.isEmpty()) {
        all << u"-l"_s << user;
    }
    return all + options + QStringList{u"--"_s, host};
}
