// SPDX-License-Identifier: MIT
#pragma once

#include "base/idletimer.h"
#include "engine/session.h"
#include "live/sessionstore.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/fakeprograms.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/live/livesession.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

/** The state of an agent that is ready. */
inline const QString kReady = QStringLiteral("{\"Started\":\"2024-01-02T03:04:05\",\"Clients\":0,\"Passwords\":[]}");
/** Ends an agent without an exit code in its directory. */
inline const QString kBreak = QStringLiteral("exit 3");

[[nodiscard]] inline QString stateWith(int clients, const QString &passwords)
{
    return QStringLiteral("{\"Started\":\"2024-01-02T03:04:05\",\"Clients\":%1,\"Passwords\":[%2],"
                          "\"ScreenWidth\":800,\"ScreenHeight\":600}")
        .arg(QString::number(clients), passwords);
}

/** A store with one display for its sessions, and the programs that a start runs. For tests of actions. */
class ActionsFixture
{
protected:
    void setUp()
    {
        logger = std::make_unique<CollectingLogger>();
        displays = std::make_unique<ReservedDisplays>();
        folder = std::make_unique<QTemporaryDir>();
        root = folder->filePath(QStringLiteral("sessions"));
        QVERIFY(QDir().mkdir(root));
        programs = std::make_unique<FakePrograms>();
        programs->add(QStringLiteral("xauth"), QStringLiteral("exit 0"));
        programs->add(QStringLiteral("start-app"),
                      QStringLiteral("printf %s \"$*\" > command.new; mv command.new command"));
        windowMode = geometry = password = QStringLiteral("untouched");
        port = 7;
        makeStore();
    }

    void tearDown()
    {
        store.reset();
        QCOMPARE(TEST_heldSessions(), 0);
        programs.reset();
        endStartedAgent(sessionDirectory(root, id));
        folder.reset();
        socket.reset();
        displays.reset();
        logger.reset();
    }

    void makeStore() { store = std::make_unique<SessionStore>(root, displays->first(), displays->end(), QString()); }

    /** Adds the program "start-agent", a script that reports its state on the display's socket. */
    void addAgent(const QString &preparation, const AgentManner &manner)
    {
        const QString path = folder->filePath(QStringLiteral("socket"));
        socket = std::make_unique<AgentSocket>(path);
        socket->setStateFile(fileOf(QStringLiteral("state")));
        // The agent itself links the socket: if it existed before, the display would count as used.
        programs->add(QStringLiteral("start-agent"),
                      QStringLiteral("printf '%s,' \"$@\" > arguments\n"
                                     "ln -s '%1' /tmp/Xrdp_$(($2 - 41000)).sock\n")
                              .arg(path) +
                          agentScript(preparation, manner.onUsr1, manner.onUsr2, manner.onTerm));
    }

    [[nodiscard]] int start(const QString &startId)
    {
        return store->start(startId, QStringLiteral("xterm -e 'vi  x'"), QStringLiteral("1024x768"), password, port);
    }
    [[nodiscard]] int resume() { return store->resume(id, windowMode, geometry, password, port); }
    [[nodiscard]] int replay() { return store->replay(id, windowMode, geometry, password, port); }

    [[nodiscard]] QString fileOf(const QString &name) const
    {
        return sessionDirectory(root, id) + QLatin1Char('/') + name;
    }

    /**
     * Adds a session in this state, without an agent that answers. Signals go to the process that its directory names.
     * It uses the only display.
     */
    Session *addRecord(const QString &directory, qint32 clients = 0, const QStringList &passwords = {})
    {
        return addRecordOn(displays->first(), directory, clients, passwords);
    }

    Session *addRecordOn(quint16 display, const QString &directory, qint32 clients, const QStringList &passwords)
    {
        auto session = std::make_unique<Session>();
        Session *record = session.get();
        record->directory = directory;
        record->display = display;
        record->windowMode = QStringLiteral("desktop");
        record->clients = clients;
        record->passwords = passwords;
        record->screenSize = QSize(640, 480);
        store->addSession(id, std::move(session));
        store->release(id);
        return record;
    }

    const QString id = testId(0xa);
    std::unique_ptr<ReservedDisplays> displays;
    std::unique_ptr<QTemporaryDir> folder;
    QString root;
    std::unique_ptr<FakePrograms> programs;
    std::unique_ptr<AgentSocket> socket; ///< of the started agent
    std::unique_ptr<CollectingLogger> logger;
    std::unique_ptr<SessionStore> store;

    QString windowMode;
    QString geometry;
    QString password;
    quint16 port = 0;
};
