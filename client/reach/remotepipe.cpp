// SPDX-License-Identifier: MIT
#include "client/reach/remotepipe.h"

#include "client/terminal/eventwait.h"
#include "client/terminal/textwidth.h"
#include "support/processhardening.h"

#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Time for a user to type a pass phrase, and for the remote server and agent to answer. */
constexpr auto kOpenTimeout = 180s;
constexpr int kEndTimeoutMs = 2000;

/** Every server of the remote framebuffer protocol begins with this. */
constexpr QByteArrayView kGreeting("RFB ");

/** A login script of the other host may print as much before the session begins. */
constexpr qsizetype kMaxWelcomeBytes = 64 * 1024;
constexpr qsizetype kMaxErrorLength = 64 * 1024;

/** Runs in the child, between fork and exec. */
void prepareChild(int connection)
{
    ::dup2(connection, STDIN_FILENO);
    ::dup2(connection, STDOUT_FILENO);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    restoreCoreFiles();
}

} // namespace

RemotePipe::RemotePipe(const RemoteHost &host_, QObject *parent)
    : QObject(parent)
    , host(host_)
{
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    connect(&process, &QProcess::readyReadStandardError, this, &RemotePipe::Process_readyReadStandardError);
}

RemotePipe::~RemotePipe()
{
    process.disconnect(this);
    if (stream != -1) {
        ::close(stream);
    }
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        if (!process.waitForFinished(kEndTimeoutMs)) {
            process.kill();
            process.waitForFinished(kEndTimeoutMs);
        }
    }
}

bool RemotePipe::open(const QString &id, Failure *failure)
{
    QStringList command;
    if (!host.pipeCommand(id, &command, failure) || !start(command, failure)) {
        return false;
    }
    EventWait wait([this] { return hasBegun() || process.state() == QProcess::NotRunning; });
    QSocketNotifier readable(stream, QSocketNotifier::Read);
    connect(&readable, &QSocketNotifier::activated, wait.context(), [this, &wait, &readable] {
        Stream_readable();
        readable.setEnabled(!hasEnded && !hasBegun());
        wait.wake();
    });
    connect(&process, &QProcess::stateChanged, wait.context(), [&wait] { wait.wake(); });
    const bool isInTime = wait.run(kOpenTimeout);
    if (hasBegun()) {
        return true;
    }
    if (!isInTime) {
        return fail(
            failure, ExitCode::TimedOut,
            u"Failed to reach the host \"%1\": \"%2\" did not answer in time."_s.arg(host.hostName(), command.first()));
    }
    if (process.error() == QProcess::FailedToStart || process.exitStatus() == QProcess::CrashExit) {
        const QString what = process.error() == QProcess::FailedToStart ? u"does not start"_s : u"crashed"_s;
        return fail(failure, ExitCode::NoServer,
                    u"Failed to reach the host \"%1\": \"%2\" %3."_s.arg(host.hostName(), command.first(), what));
    }
    *failure = process.exitCode() == 0 ? Failure{ExitCode::SessionFailed,
                                                 u"The answer of the host \"%1\" is invalid."_s.arg(host.hostName())}
                                       : host.explain(process.exitCode(), errors);
    return false;
}

int RemotePipe::takeStream()
{
    return std::exchange(stream, -1);
}

bool RemotePipe::start(const QStringList &command, Failure *failure)
{
    std::array<int, 2> ends = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return fail(failure, ExitCode::NoServer,
                    u"Failed to create a pair of sockets: %1."_s.arg(qt_error_string(errno)));
    }
    stream = ends[0];
    process.setChildProcessModifier([connection = ends[1]] { prepareChild(connection); });
    process.start(command.first(), command.sliced(1));
    ::close(ends[1]); // only the command holds it now, so we see its end
    return true;
}

bool RemotePipe::hasBegun() const
{
    return received.startsWith(kGreeting);
}

void RemotePipe::Stream_readable()
{
    std::array<char, 4096> block{};
    const ssize_t count = ::recv(stream, block.data(), block.size(), MSG_DONTWAIT);
    if (count <= 0) {
        hasEnded = count == 0 || (errno != EAGAIN && errno != EINTR);
        return;
    }
    received.append(block.data(), count);
    const qsizetype greeting = received.indexOf(kGreeting);
    received = greeting > 0 ? received.sliced(greeting) : received;
    if (!hasBegun() && received.size() > kMaxWelcomeBytes) {
        hasEnded = true;
        process.terminate();
    }
}

/** Until the session begins, the text explains a failure. Later it is the user's, without its control characters. */
void RemotePipe::Process_readyReadStandardError()
{
    const QString text = QString::fromLocal8Bit(process.readAllStandardError());
    if (!hasBegun()) {
        errors = (errors + text).right(kMaxErrorLength);
        return;
    }
    for (const QString &line : text.split(u'\n', Qt::SkipEmptyParts)) {
        std::fputs((printable(line) + u'\n').toUtf8().constData(), stderr);
    }
}
