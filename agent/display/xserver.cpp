// SPDX-License-Identifier: MIT
#include "agent/display/xserver.h"

#include "agent/applications/childwatcher.h"
#include "agent/applications/sessionenvironment.h"
#include "agent/applications/spawn.h"
#include "agent/display/authorityfile.h"
#include "agent/display/backendhandshake.h"
#include "agent/display/displaysocket.h"
#include "agent/display/xserverfiles.h"
#include "support/localendpoint.h"

#include <QFile>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <QStandardPaths>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto kProgram = "Xtigervnc"_L1;

constexpr auto kProbeInterval = 3ms;
/** Shorter than the 15 seconds for which the server waits, so that the reason is logged before it gives up. */
constexpr auto kReadyDeadline = 10s;
constexpr auto kEndDeadline = 5s;

constexpr qsizetype kMaxLines = 20;
constexpr qsizetype kMaxLineLength = 200;
constexpr qsizetype kMaxTitleLength = 100;

/** Numbers of the descriptors that the process inherits. X servers take a listening socket only as number 3. */
enum : int { kListenerNumber = 3, kAuthorityNumber = 4 };

QList<QByteArray> xServerArguments(const QByteArray &program, const XServerSettings &settings)
{
    const QString size = u"%1x%2"_s.arg(settings.size.width()).arg(settings.size.height());
    // clang-format off
    return {
        program, ":" + QByteArray::number(settings.display),
        "-geometry", size.toLatin1(),
        "-depth", "24",
        // The descriptor that the process inherits, and not the file in the session directory. If that file were removed,
        // the X server would let every user of the machine in.
        "-auth", "/proc/self/fd/" + QByteArray::number(kAuthorityNumber),
        "-desktop", settings.title.left(kMaxTitleLength).toUtf8(),
        // Only we can connect, and we have checked the password already.
        "-rfbport", "-1",
        "-rfbunixpath", QFile::encodeName(settings.rfbSocket),
        "-rfbunixmode", "0600",
        "-SecurityTypes", "None",
        "-UseBlacklist=0",
        "-AlwaysShared",
        // It listens on the socket that it inherits and on no other.
        "-nolisten", "tcp",
        "-nolisten", "local",
        "-noreset",
        "-Log", "*:stderr:30",
    };
    // clang-format on
}

/**
 * For a display without a file, which every user of the machine can connect to. The X server must not try to make the
 * file, because it ends if it fails. It gets the most clients that it can have, and descriptors for them: of the 256
 * that are the default a stranger could take all. One that has sent nothing for a minute is dropped.
 */
const QList<QByteArray> kArgumentsWithoutFile = {"-nolisten", "unix", "-maxclients", "2048", "-lf", "4096"};

/** Our own environment, without sockets that our parent has passed to us in the same way. */
QList<QByteArray> xServerEnvironment()
{
    QList<QByteArray> variables = currentEnvironment();
    variables.removeIf([](const QByteArray &variable) { return variable.startsWith("LISTEN_"); });
    variables.append("LISTEN_FDS=1");
    return variables;
}

} // namespace

XServer::XServer(ChildWatcher *watcher, QObject *parent)
    : QObject(parent)
{
    connect(watcher, &ChildWatcher::ended, this, &XServer::Watcher_ended);
    connect(&probeTimer, &QTimer::timeout, this, &XServer::probe);
    connect(&deadline, &QTimer::timeout, this, &XServer::Deadline_timeout);
    connect(&killTimer, &QTimer::timeout, this, [this] {
        if (isRunning()) {
            ::kill(process, SIGKILL);
        }
    });
    probeTimer.setInterval(kProbeInterval);
    deadline.setInterval(kReadyDeadline);
    deadline.setSingleShot(true);
    killTimer.setInterval(kEndDeadline);
    killTimer.setSingleShot(true);
}

XServer::~XServer()
{
    if (isRunning()) {
        ::kill(process, SIGTERM);
    }
    dropProbe();
    outputNotifier.reset();
    if (output != -1) {
        ::close(output);
    }
}

bool XServer::start(const XServerSettings &settings_, QString *error)
{
    Q_ASSERT(!isRunning());
    const QByteArray program = QFile::encodeName(QStandardPaths::findExecutable(kProgram));
    if (program.isEmpty()) {
        *error = u"The program \"%1\" is not installed, or not on the search path"_s.arg(kProgram);
        return false;
    }
    settings = settings_;
    // Otherwise the socket of a dead X server could be taken for the new one's.
    ::unlink(QFile::encodeName(settings.rfbSocket).constData());

    auto socket = std::make_unique<DisplaySocket>(settings.socketFolder);
    if (!socket->listen(settings.display, error)) {
        return false;
    }
    const int authority = sealedAuthority(settings.authorityEntries, error);
    if (authority == -1) {
        return false;
    }
    displaySocket = std::move(socket);
    std::array<int, 2> pipeEnds = {};
    if (::pipe2(pipeEnds.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = u"Failed to create a pipe: %1"_s.arg(qt_error_string(errno));
        ::close(authority);
        return false;
    }
    const pid_t started = spawn(program, authority, pipeEnds[1], error);
    ::close(pipeEnds[1]);
    ::close(authority);
    if (started == -1) {
        ::close(pipeEnds[0]);
        displaySocket.reset();
        return false;
    }
    displaySocket->handedOver();
    process = started;
    output = pipeEnds[0];
    outputNotifier = std::make_unique<QSocketNotifier>(output, QSocketNotifier::Read);
    connect(outputNotifier.get(), &QSocketNotifier::activated, this, &XServer::Output_activated);
    probeTimer.start();
    deadline.start();
    return true;
}

pid_t XServer::spawn(const QByteArray &program, int authority, int outputEnd, QString *error) const
{
    SpawnRequest request;
    request.program = program;
    request.arguments = xServerArguments(program, settings);
    if (!weakness().isEmpty()) {
        request.arguments += kArgumentsWithoutFile;
    }
    request.environment = xServerEnvironment();
    request.pidVariable = "LISTEN_PID"; // without it the socket would count as meant for another process
    request.output = outputEnd;
    request.inherited = {displaySocket->descriptor(), authority};
    return spawnProcess(request, error);
}

QString XServer::weakness() const
{
    return displaySocket ? displaySocket->weakness() : QString();
}

void XServer::stop()
{
    if (!isRunning()) {
        return;
    }
    probeTimer.stop();
    deadline.stop();
    ::kill(process, SIGTERM);
    killTimer.start();
}

void XServer::probe()
{
    if (probeSocket) {
        return; // connected, and waiting for the greeting
    }
    const int descriptor = connectLocalSocket(settings.rfbSocket);
    if (descriptor == -1) {
        return; // it does not listen yet
    }
    probeSocket = std::make_unique<QLocalSocket>();
    connect(probeSocket.get(), &QLocalSocket::readyRead, this, &XServer::Probe_readyRead);
    connect(probeSocket.get(), &QLocalSocket::disconnected, this, &XServer::dropProbe);
    probeSocket->setSocketDescriptor(descriptor);
}

void XServer::Probe_readyRead()
{
    if (!probeTimer.isActive() || probeSocket->bytesAvailable() < kBackendGreetingBytes) {
        return;
    }
    const bool isExpected = probeSocket->read(kBackendGreetingBytes) == kBackendGreeting;
    dropProbe();
    if (!isExpected) {
        return; // the timer probes again until the deadline
    }
    probeTimer.stop();
    deadline.stop();
    emit ready();
}

void XServer::dropProbe()
{
    if (probeSocket) {
        probeSocket->disconnect(this);
        probeSocket.release()->deleteLater(); // we may be in its signal
    }
}

void XServer::Deadline_timeout()
{
    probeTimer.stop();
    isTooLate = true;
    ::kill(process, SIGKILL);
}

void XServer::Watcher_ended(pid_t pid, int status)
{
    if (!isRunning() || pid != process) {
        return;
    }
    Output_activated(); // reads what it wrote last
    removeXServerFiles(settings.display, pid);
    displaySocket.reset();
    process = 0;
    probeTimer.stop();
    deadline.stop();
    killTimer.stop();
    const QString how = exitStatusText(status);
    emit ended(isTooLate ? u"it did not serve its screen within 10 seconds"_s : how);
}

void XServer::Output_activated()
{
    if (!outputNotifier) {
        return;
    }
    constexpr int kMaxReads = 16; // so that a process that writes without end does not block the event loop
    std::array<char, 4096> buffer = {};
    for (int i = 0; i < kMaxReads; ++i) {
        const ssize_t length = ::read(output, buffer.data(), buffer.size());
        if (length == 0) {
            outputNotifier->setEnabled(false);
        }
        if (length <= 0) {
            return;
        }
        addOutput(QByteArray(buffer.data(), length));
    }
}

void XServer::addOutput(const QByteArray &bytes)
{
    unfinishedLine += bytes;
    for (qsizetype end = unfinishedLine.indexOf('\n'); end != -1; end = unfinishedLine.indexOf('\n')) {
        const QByteArray line = unfinishedLine.first(end).trimmed();
        unfinishedLine.remove(0, end + 1);
        if (!line.isEmpty()) {
            lines.append(QString::fromUtf8(line.left(kMaxLineLength)));
        }
        if (lines.size() > kMaxLines) {
            lines.removeFirst();
        }
    }
    if (unfinishedLine.size() > kMaxLineLength) {
        unfinishedLine.truncate(kMaxLineLength);
    }
}
