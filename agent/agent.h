// SPDX-License-Identifier: MIT
#pragma once

#include "agent/agentfiles.h"
#include "agent/agentoptions.h"
#include "agent/applicationdoor.h"
#include "agent/applicationrunner.h"
#include "agent/authorityfile.h"
#include "agent/childwatcher.h"
#include "agent/directorywatcher.h"
#include "agent/ending.h"
#include "agent/frontdoor.h"
#include "agent/listingwatcher.h"
#include "agent/screenwatcher.h"
#include "agent/sessionstate.h"
#include "agent/statesocket.h"
#include "agent/xserver.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <memory>
#include <optional>

class AgentLog;
class GuardLink;
class SignalCatcher;

/**
 * One session, from the start of its X server to the end of everything that runs in it. Puts the parts together and
 * decides what follows what; the parts do the work. Works in the current directory, the session's.
 * Owned by start-agent's main function, lives on the main thread, started once.
 */
class Agent final : public QObject
{
    Q_OBJECT

public:
    /** @param log and @param signals_ and @param guard outlive this object */
    Agent(AgentLog *log, SignalCatcher *signals_, GuardLink *guard, QObject *parent = nullptr);
    ~Agent() override;

    /** Begins with the command line's @p arguments, without the program's name. finished() follows. */
    void start(const QStringList &arguments);

signals:
    /** The session is over and nothing of it runs any more. */
    void finished(ExitCode code);

private:
    [[nodiscard]] bool prepare(QString *error);
    [[nodiscard]] bool startServer(QString *error);
    void Server_ready();
    void DirectoryWatcher_removed();
    void Server_ended(const QString &reason);
    void ScreenWatcher_started(const QSize &size);
    void prepareApplications();
    [[nodiscard]] bool startWindowManager();
    void open();
    void fail(ExitCode code, const QString &reason);
    void end(ExitCode code);

    AgentLog *log;
    GuardLink *guard;
    AgentOptions options;
    quint16 display = 0;
    DisplayAuthority authority;
    SessionState state;
    StateSocket stateSocket;
    ChildWatcher children;
    DirectoryWatcher directoryWatcher;
    ListingWatcher listingWatcher;
    FrontDoor frontDoor;
    XServer server;
    ScreenWatcher screenWatcher;
    std::unique_ptr<ApplicationRunner> applications;
    std::unique_ptr<ApplicationDoor> applicationDoor;
    QElapsedTimer sinceStart;
    pid_t windowManager = -1;
    QTimer windowManagerDeadline;
    Ending ending;
    std::optional<ExitCode> exitCode; ///< set from the moment that the end has begun
};
