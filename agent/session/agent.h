// SPDX-License-Identifier: MIT
#pragma once

#include "agent/applications/applicationdoor.h"
#include "agent/applications/applicationrunner.h"
#include "agent/applications/childwatcher.h"
#include "agent/display/authorityfile.h"
#include "agent/display/screenwatcher.h"
#include "agent/display/windowmanagerstart.h"
#include "agent/display/xserver.h"
#include "agent/door/doorkey.h"
#include "agent/door/doorprocess.h"
#include "agent/door/frontdoor.h"
#include "agent/session/agentfiles.h"
#include "agent/session/agentoptions.h"
#include "agent/session/directorywatcher.h"
#include "agent/session/ending.h"
#include "agent/session/listingwatcher.h"
#include "agent/session/sessionstate.h"
#include "agent/session/statesocket.h"
#include "base/agentsettings.h"

#include <QElapsedTimer>
#include <QObject>

#include <memory>
#include <optional>

class SessionLog;
class GuardLink;
class SignalCatcher;

/**
 * One session, from the start of its X server to the end of everything that runs in it. Connects the parts and decides
 * what happens in which order; the parts do the work. Works in the current directory, which is the session's.
 * Owned by start-agent's main function, lives on the main thread, started once.
 */
class Agent final : public QObject
{
    Q_OBJECT

public:
    /** @param log and @param signals_ and @param guard outlive this object */
    Agent(SessionLog *log, SignalCatcher *signals_, GuardLink *guard, QObject *parent = nullptr);
    ~Agent() override;

    /** Begins with the command line's @p arguments, without the program's name. finished() follows. */
    void start(const QStringList &arguments);

signals:
    /** The session is over and nothing of it runs any more. */
    void finished(AgentExitCode code);

private:
    void readSettings();
    [[nodiscard]] bool prepare(QString *error);
    [[nodiscard]] bool listen(QString *error);
    [[nodiscard]] bool startXServer(QString *error);
    void XServer_ready();
    void DirectoryWatcher_removed();
    void XServer_ended(const QString &reason);
    void ScreenWatcher_started(const QSize &size);
    void prepareApplications();
    void open();
    void fail(AgentExitCode code, const QString &reason);
    void end(AgentExitCode code);

    SessionLog *log;
    GuardLink *guard;
    AgentOptions options;
    AgentSettings settings;
    quint16 display = 0;
    DisplayAuthority authority;
    SessionState state;
    StateSocket stateSocket;
    ChildWatcher children;
    DirectoryWatcher directoryWatcher;
    ListingWatcher listingWatcher;
    DoorKey doorKey;
    DoorProcess doorProcess;
    FrontDoor frontDoor;
    XServer xServer;
    ScreenWatcher screenWatcher;
    std::unique_ptr<ApplicationRunner> applications;
    std::unique_ptr<ApplicationDoor> applicationDoor;
    std::unique_ptr<WindowManagerStart> windowManager; ///< of a rootless session
    QElapsedTimer sinceStart;
    Ending ending;
    std::optional<AgentExitCode> exitCode; ///< set once the end has begun
};
