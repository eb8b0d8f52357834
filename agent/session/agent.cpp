// SPDX-License-Identifier: MIT
#include "agent/session/agent.h"

#include "agent/applications/processtree.h"
#include "agent/applications/sessionenvironment.h"
#include "agent/display/windowmanager.h"
#include "agent/session/guardlink.h"
#include "agent/session/sessionlog.h"
#include "agent/session/sessiontitle.h"
#include "base/settings.h"
#include "base/signalcatcher.h"
#include "contract/userdirectory.h"
#include "support/filereader.h"
#include "support/privatefile.h"

#include <QCoreApplication>
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

/** One of the server's own files. */
QString serverFile(QLatin1StringView name)
{
    return QDir(Settings::read().userPath).filePath(name);
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
    , doorKey(serverFile(UserFile::kCertificate), serverFile(UserFile::kPrivateKey))
    , doorProcess(QFile::encodeName(QCoreApplication::applicationDirPath() + "/session-door"_L1))
    , frontDoor({&doorProcess, &doorKey, state.passwords(), nullptr}, QString())
    , xServer(&children)
    , ending(&xServer, &children)
{
    connect(signals_, &SignalCatcher::gotUSR1, this, [this] { state.offerPassword(); });
    connect(signals_, &SignalCatcher::gotUSR2, this, [this] {
        frontDoor.disconnectClients();
        state.expirePasswords(); // who has got one before must not come in afterwards
    });
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
    readSettings();
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

void Agent::readSettings()
{
    QStringList problems;
    settings = AgentSettings::read(&problems);
    for (const QString &problem : std::as_const(problems)) {
        logMessage(LogWarning, problem);
    }
    DoorRules rules;
    rules.allowPlainFromNetwork = settings.allowPlainFromNetwork;
    rules.allowLocalUsers = settings.allowLocalUsers;
    frontDoor.setRules(rules);
    state.setPasswordLifetime(settings.passwordMinutes);
}

/** Everything that can be missing or taken is checked before anything is started. */
bool Agent::prepare(QString *error)
{
    if (!becomeSubreaper(error) || !children.start(error) || !listen(error) ||
        !stateSocket.listen(agentSocketPath(display), error)) {
        return false;
    }
    guard->tell({display, 0});
    // Not before the sockets are ours, because another agent of this session may be running on the file's cookie.
    if (!renewAuthorityFile(SessionFile::kAuthority, display, &authority, error)) {
        return false;
    }
    return writePrivateFile(SessionFile::kServerPid, QByteArray::number(::getpid()), error);
}

/** The port stays free if the user wants no TCP port. */
bool Agent::listen(QString *error)
{
    const std::optional<QHostAddress> address = settings.address();
    return !address || frontDoor.listen(*address, options.port, error);
}

bool Agent::startXServer(QString *error)
{
    XServerSettings server;
    server.display = display;
    server.size = options.size;
    server.title = sessionTitle(sessionName(), display);
    server.authorityEntries = authority.entries;
    server.rfbSocket = AgentFile::rfbSocket(display);
    frontDoor.setBackendPath(server.rfbSocket);
    if (!xServer.start(server, error)) {
        return false;
    }
    guard->tell({display, xServer.pid()});
    if (!xServer.weakness().isEmpty()) {
        logMessage(LogWarning, xServer.weakness());
    }
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
    ApplicationSettings surroundings;
    surroundings.environment = applicationEnvironment(currentEnvironment(), display, absolute(SessionFile::kAuthority));
    surroundings.fileCreationMask = userFileCreationMask();
    surroundings.workingDirectory = QFile::encodeName(QDir::homePath());
    surroundings.logPath = SessionFile::kAppLog;
    applications = std::make_unique<ApplicationRunner>(std::move(surroundings), &children);
    applicationDoor = std::make_unique<ApplicationDoor>([this](const QByteArray &commandLine, QString *startError) {
        return applications->run(commandLine, startError);
    });
}

/** Accepts applications and clients, and reports that the session is ready. */
void Agent::open()
{
    QString error;
    if (!applicationDoor->listen(AgentFile::applicationSocket(display), &error) ||
        !frontDoor.listenLocally(viewerSocketName(display), &error)) {
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
