// SPDX-License-Identifier: MIT
#include "agent/session/agent.h"

#include "agent/applications/processtree.h"
#include "agent/applications/sessionenvironment.h"
#include "agent/display/windowmanager.h"
#include "agent/session/guardlink.h"
#include "agent/session/sessionlog.h"
#include "agent/session/sessiontitle.h"
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

constexpr int kMaxNameBytes = 400;

/** The content of the session's name file; empty when it cannot be read, because no session fails for its title. */
QByteArray sessionName()
{
    QByteArray name;
    QString error;
    return readFile(SessionFile::kName, kMaxNameBytes, &name, &error) ? name : QByteArray();
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
    , xServer(&children)
    , ending(&xServer, &children)
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
    connect(&xServer, &XServer::ready, this, &Agent::XServer_ready);
    connect(&xServer, &XServer::ended, this, &Agent::XServer_ended);
    connect(&screenWatcher, &ScreenWatcher::started, this, &Agent::ScreenWatcher_started);
    connect(&screenWatcher, &ScreenWatcher::failed, this,
            [this](const QString &error) { fail(AgentExitCode::NotStarted, error); });
    connect(&screenWatcher, &ScreenWatcher::resized, this, [this](const QSize &size) { state.setScreenSize(size); });
    connect(&screenWatcher, &ScreenWatcher::windowManagerStarted, this, [this] {
        if (windowManager) {
            windowManager->setManaging();
        }
    });
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
    if (!checkPort(options.port, display, &error)) {
        fail(AgentExitCode::BadArguments, error);
        return;
    }
    if (!prepare(&error) || !startXServer(&error)) {
        fail(AgentExitCode::NotStarted, error);
    }
}

/** Everything that can be missing or taken is checked before anything is started. */
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

bool Agent::startXServer(QString *error)
{
    XServerSettings settings;
    settings.display = display;
    settings.size = options.size;
    settings.title = sessionTitle(sessionName(), display);
    settings.authorityEntries = authority.entries;
    settings.rfbSocket = AgentFile::rfbSocket(display);
    frontDoor.setBackendPath(settings.rfbSocket);
    if (!xServer.start(settings, error)) {
        return false;
    }
    guard->tell({display, xServer.pid()});
    // Watch last, because this takes long if a directory has many files, and the X server starts meanwhile.
    return directoryWatcher.watch(u"."_s, error);
}

/** Without its directory nobody can reach the session any more. */
void Agent::DirectoryWatcher_removed()
{
    logMessage(LogWarning, u"The directory of the session was removed"_s);
    end(AgentExitCode::Ended);
}

void Agent::XServer_ready()
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
    if (!options.rootless) {
        open();
        return;
    }
    windowManager = std::make_unique<WindowManagerStart>(applications.get(), &children);
    connect(windowManager.get(), &WindowManagerStart::settled, this, &Agent::open);
    windowManager->start(absolute(AgentFile::kWindowManagerSettings),
                         windowManagerPatience(std::chrono::milliseconds(sinceStart.elapsed())));
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

/** Accepts applications and clients, and reports that the session is ready. */
void Agent::open()
{
    QString error;
    if (!applicationDoor->listen(AgentFile::applicationSocket(display), &error)) {
        fail(AgentExitCode::NotStarted, error);
        return;
    }
    frontDoor.open();
    state.setReady();
    listingWatcher.start();
}

void Agent::XServer_ended(const QString &reason)
{
    if (exitCode) {
        return; // we have asked it to end
    }
    for (const QString &line : xServer.lastLines()) {
        logMessage(LogWarning, u"X server: "_s + line);
    }
    if (state.isReady()) {
        fail(AgentExitCode::XServerDied, u"The X server ended: "_s + reason);
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
        return; // the end has begun
    }
    exitCode = code;
    if (windowManager) {
        windowManager->cancel();
    }
    listingWatcher.stop();
    frontDoor.close();
    frontDoor.disconnectClients();
    state.expirePasswords();
    applicationDoor.reset();
    ending.start();
}
