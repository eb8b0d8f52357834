// SPDX-License-Identifier: MIT
#include "agent/session/agent.h"

#include "agent/applications/processtree.h"
#include "agent/applications/sessionenvironment.h"
#include "agent/display/windowmanager.h"
#include "agent/session/guardlink.h"
#include "agent/session/sessionlog.h"
#include "base/signalcatcher.h"
#include "support/filereader.h"
#include "support/privatefile.h"

#include <QDir>
#include <QFile>

#include <chrono>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr int kMaxTitleBytes = 400;

// What viewers show; a session may lack a name, or have one that no window title should hold.
QString sessionTitle(quint16 display)
{
    QByteArray bytes;
    QString error;
    if (!readFile(SessionFile::kName, kMaxTitleBytes, &bytes, &error)) {
        bytes.clear();
    }
    const QString title = QString::fromUtf8(bytes).simplified();
    return title.isEmpty() ? u"Session :%1"_s.arg(display) : title;
}

QString absolute(QLatin1StringView name)
{
    return QDir::current().absoluteFilePath(name);
}

} // namespace

Agent::Agent(SessionLog *log_, SignalCatcher *signals_, GuardLink *guard_, QObject *parent)
    : QObject(parent)
    , log(log_)
    , guard(guard_)
    , state(log_)
    , stateSocket(&state)
    , frontDoor(state.passwords(), QString())
    , server(&children)
    , ending(&server, &children)
{
    connect(signals_, &SignalCatcher::gotUSR1, this, [this] { state.offerPassword(); });
    connect(signals_, &SignalCatcher::gotUSR2, &frontDoor, &FrontDoor::disconnectClients);
    connect(signals_, &SignalCatcher::gotTERM, this, [this] { end(AgentExitCode::Ended); });
    connect(signals_, &SignalCatcher::gotINT, this, [this] { end(AgentExitCode::Ended); });
    connect(signals_, &SignalCatcher::gotHUP, this, [this] { end(AgentExitCode::Ended); });
    connect(guard, &GuardLink::lost, this,
            [this] { fail(AgentExitCode::AgentDied, u"The agent's guard was killed"_s); });
    connect(&directoryWatcher, &DirectoryWatcher::removed, this, &Agent::DirectoryWatcher_removed);
    connect(&listingWatcher, &ListingWatcher::unlisted, this,
            [this] { fail(AgentExitCode::Unlisted, u"No server knows of this session"_s); });
    connect(
        &frontDoor, &FrontDoor::clientAuthenticated, this,
        [this](const QString &address, const QByteArray &password) { state.clientAuthenticated(address, password); });
    connect(&frontDoor, &FrontDoor::clientsDisconnected, this,
            [this](const QStringList &addresses) { state.clientsDisconnected(addresses); });
    connect(&server, &XServer::ready, this, &Agent::Server_ready);
    connect(&server, &XServer::ended, this, &Agent::Server_ended);
    connect(&screenWatcher, &ScreenWatcher::started, this, &Agent::ScreenWatcher_started);
    connect(&screenWatcher, &ScreenWatcher::failed, this,
            [this](const QString &error) { fail(AgentExitCode::NotStarted, error); });
    connect(&screenWatcher, &ScreenWatcher::resized, this, [this](const QSize &size) { state.setScreenSize(size); });
    connect(&screenWatcher, &ScreenWatcher::windowManagerStarted, this, [this] {
        if (windowManagerDeadline.isActive()) {
            open();
        }
    });
    connect(&windowManagerDeadline, &QTimer::timeout, this, [this] {
        logMessage(LogWarning, u"The window manager is not ready, the session goes on without it"_s);
        open();
    });
    connect(&children, &ChildWatcher::ended, this, [this](pid_t pid) {
        if (pid == windowManager && windowManagerDeadline.isActive()) {
            logMessage(LogWarning, u"The window manager has ended, the session goes on without it"_s);
            open();
        }
    });
    windowManagerDeadline.setSingleShot(true);
    connect(&ending, &Ending::finished, this, [this] { emit finished(*exitCode); });
}

Agent::~Agent()
{
    QFile::remove(AgentFile::rfbSocket(display));
    QFile::remove(AgentFile::kWindowManagerSettings);
    guard->tell({});
}

void Agent::start(const QStringList &arguments)
{
    sinceStart.start();
    QString error;
    if (!parseAgentArguments(arguments, &options, &error)) {
        fail(AgentExitCode::BadArguments, error);
        return;
    }
    if (!readDisplayNumber(SessionFile::kDisplay, &display, &error)) {
        fail(AgentExitCode::NotStarted, error);
        return;
    }
    if (options.port != kFirstAgentPort + display) {
        fail(AgentExitCode::BadArguments,
             u"The port of display %1 is %2, not %3"_s.arg(display).arg(kFirstAgentPort + display).arg(options.port));
        return;
    }
    if (!prepare(&error) || !startServer(&error)) {
        fail(AgentExitCode::NotStarted, error);
    }
}

// What can be missing or taken is looked at before anything is started.
bool Agent::prepare(QString *error)
{
    if (!readAuthorityFile(SessionFile::kAuthority, display, &authority, error) || !becomeSubreaper(error) ||
        !children.start(error) || !frontDoor.listen(options.port, error) ||
        !stateSocket.listen(agentSocketPath(display), error)) {
        return false;
    }
    guard->tell({display, 0});
    return writePrivateFile(SessionFile::kServerPid, QByteArray::number(::getpid()), error);
}

bool Agent::startServer(QString *error)
{
    XServerSettings settings;
    settings.display = display;
    settings.size = options.size;
    settings.title = sessionTitle(display);
    settings.authorityEntries = authority.entries;
    settings.rfbSocket = AgentFile::rfbSocket(display);
    frontDoor.setBackendPath(settings.rfbSocket);
    if (!server.start(settings, error)) {
        return false;
    }
    guard->tell({display, server.pid()});
    // Only now: beside a great many files it takes its time, and the X server needs longer.
    return directoryWatcher.watch(u"."_s, error);
}

// Without it nobody can reach the session any more.
void Agent::DirectoryWatcher_removed()
{
    logMessage(LogWarning, u"The directory of the session was removed"_s);
    end(AgentExitCode::Ended);
}

void Agent::Server_ready()
{
    screenWatcher.start(display, authority.cookie);
}

void Agent::ScreenWatcher_started(const QSize &size)
{
    if (exitCode) {
        return;
    }
    state.setScreenSize(size);
    prepareApplications();
    if (options.rootless && startWindowManager()) {
        // It does not give windows that it finds the treatment of those that come later.
        windowManagerDeadline.start(windowManagerPatience(std::chrono::milliseconds(sinceStart.elapsed())));
        return;
    }
    open();
}

void Agent::prepareApplications()
{
    ApplicationSettings settings;
    settings.environment = applicationEnvironment(currentEnvironment(), display, absolute(SessionFile::kAuthority));
    settings.fileCreationMask = userFileCreationMask();
    settings.workingDirectory = QFile::encodeName(QDir::homePath());
    settings.logPath = SessionFile::kAppLog;
    applications = std::make_unique<ApplicationRunner>(std::move(settings), &children);
    applicationDoor = std::make_unique<ApplicationDoor>([this](const QByteArray &commandLine, QString *startError) {
        return applications->run(commandLine, startError);
    });
}

// The application is usable without one, if less comfortably, so nothing here ends the session.
bool Agent::startWindowManager()
{
    QList<QByteArray> arguments;
    QString error;
    if (!prepareWindowManager(absolute(AgentFile::kWindowManagerSettings), &arguments, &error)) {
        logMessage(LogWarning, error);
        return false;
    }
    if (arguments.isEmpty()) {
        logMessage(LogWarning, u"No window manager is installed, neither openbox nor matchbox-window-manager"_s);
        return false;
    }
    windowManager = applications->runProgram(arguments, &error);
    if (windowManager == -1) {
        logMessage(LogWarning, error);
        return false;
    }
    return true;
}

// Everything is there: lets applications and clients in, and says so.
void Agent::open()
{
    windowManagerDeadline.stop();
    if (exitCode || state.isReady()) {
        return;
    }
    QString error;
    if (!applicationDoor->listen(AgentFile::applicationSocket(display), &error)) {
        fail(AgentExitCode::NotStarted, error);
        return;
    }
    frontDoor.open();
    state.setReady();
    listingWatcher.start();
}

void Agent::Server_ended(const QString &reason)
{
    if (exitCode) {
        return; // we asked it to
    }
    for (const QString &line : server.lastLines()) {
        logMessage(LogWarning, u"X server: "_s + line);
    }
    if (state.isReady()) {
        fail(AgentExitCode::ServerDied, u"The X server ended: "_s + reason);
    } else {
        fail(AgentExitCode::NotStarted, u"The X server did not start: "_s + reason);
    }
}

void Agent::fail(AgentExitCode code, const QString &reason)
{
    if (!exitCode) {
        logMessage(LogCritical, reason);
    }
    end(code);
}

void Agent::end(AgentExitCode code)
{
    if (exitCode) {
        return; // under way
    }
    exitCode = code;
    windowManagerDeadline.stop();
    listingWatcher.stop();
    frontDoor.close();
    frontDoor.disconnectClients();
    state.expirePasswords();
    applicationDoor.reset();
    ending.start();
}
