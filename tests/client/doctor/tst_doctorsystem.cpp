// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"
#include "tests/client/doctorinput.h"
#include "tests/client/impostor.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/helpers/reserveddisplays.h"
#include "tests/testmain.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>

using namespace Qt::StringLiterals;

class TestDoctorSystem : public QObject
{
    Q_OBJECT

private slots:
    void init() { surroundings = std::make_unique<DoctorSurroundings>(); }

    void missingProgramsAreReported()
    {
        const QStringList none = texts(checkPrograms(surroundings->input()));
        QVERIFY(none.contains(u"FAIL start-agent, which runs each session, is not on the search path"_s));
        QVERIFY(none.contains(u"FAIL xauth, which each start of a session needs, is not on the search path"_s));
        QVERIFY(none.contains(u"FAIL openssl, which makes the certificate, is not on the search path"_s));
        QVERIFY(haveRemedies(checkPrograms(surroundings->input())));

        for (const char *name : {"bin/start-agent", "bin/start-app", "bin/xauth", "bin/openssl"}) {
            putProgram(name);
        }
        const QString all = texts(checkPrograms(surroundings->input())).join(u'\n');
        QVERIFY2(all.contains(u"OK start-agent is \"%1\""_s.arg(surroundings->path("bin/start-agent"))),
                 qPrintable(all));
        QVERIFY2(!all.contains("Xtigervnc"_L1), qPrintable(all)); // only the bundled agent needs it
    }

    void runningServerMayHaveAnotherSearchPath()
    {
        for (const char *name : {"bin/start-agent", "bin/start-app", "bin/xauth", "bin/openssl"}) {
            putProgram(name);
        }
        const EnvironmentVariable user("USER", "anna");
        const Impostor impostor(serverEnvironment(u"anna"_s, surroundings->path("tmp")));
        putFile(surroundings->path("zarvo/host/server_pid"), QByteArray::number(impostor.pid()));
        putFile(surroundings->path("zarvo/host/server_port"), "1");
        const QString text = u"FAIL The running server does not find start-agent: its search path is \"%1\""_s.arg(
            surroundings->path("tmp"));
        QTRY_VERIFY(texts(checkPrograms(surroundings->input())).contains(text));
        QVERIFY(haveRemedies(checkPrograms(surroundings->input())));

        const Impostor other(serverEnvironment(u"anna"_s, surroundings->path("bin")));
        putFile(surroundings->path("zarvo/host/server_pid"), QByteArray::number(other.pid()));
        putFile(surroundings->path("zarvo/host/server_port"), "1");
        QTRY_COMPARE(ServerFiles(surroundings->path("zarvo/host")).readStatus().state, ServerState::Running);
        QVERIFY(!texts(checkPrograms(surroundings->input())).join(u'\n').contains(u"does not find"_s));
    }

    void opensslIsOnlyAWarningWithACertificate()
    {
        putFile(surroundings->path("zarvo/server_cert"), "");
        QVERIFY(texts(checkPrograms(surroundings->input()))
                    .contains(u"WARN openssl, which makes the certificate, is not on the search path"_s));
    }

    void missingViewerIsAWarning()
    {
        const EnvironmentVariable named("ZARVO_VIEWER", "nothing-of-the-kind");
        QList<Finding> findings = checkViewer(surroundings->input());
        QCOMPARE(findings.first().level, Finding::Level::Warn);
        QVERIFY(haveRemedies(findings));
        const EnvironmentVariable other("ZARVO_VIEWER", "sh -c");
        QCOMPARE(texts(checkViewer(surroundings->input())), QStringList{u"OK sh -c"_s});
    }

    void freeDisplaysAreCounted()
    {
        const ReservedDisplays reserved(3);
        DoctorInput input = surroundings->input();
        input.settings.displayBase = reserved.first();
        input.settings.displayLimit = 3;
        const auto found = [&input] { return texts(checkDisplays(input)).join(u'\n'); };
        const QString text = u"%1 %2 of 3 displays from :%3 on are free"_s;
        const int base = reserved.first();
        QCOMPARE(found(), text.arg(u"OK"_s).arg(3).arg(base));
        putFile(surroundings->path("tmp") + u"/.X%1-lock"_s.arg(base), "");
        QCOMPARE(found(), text.arg(u"OK"_s).arg(2).arg(base));
        putFile(surroundings->path("tmp/.X11-unix") + u"/X%1"_s.arg(base + 1), "");
        QCOMPARE(found(), text.arg(u"OK"_s).arg(1).arg(base));
        QTcpServer agent;
        QVERIFY(agent.listen(QHostAddress(QHostAddress::AnyIPv4), static_cast<quint16>(41000 + base + 2)));
        QCOMPARE(found(), text.arg(u"FAIL"_s).arg(0).arg(base));
        QVERIFY(haveRemedies(checkDisplays(input)));
    }

    void checkLeavesDisplaysFree()
    {
        const ReservedDisplays reserved;
        const auto agentPort = static_cast<quint16>(41000 + reserved.first());
        DoctorInput input = surroundings->input();
        input.settings.displayBase = reserved.first();
        input.settings.displayLimit = 1;
        std::atomic<bool> isDone = false;
        std::thread doctor([&isDone, &input] {
            for (int i = 0; i < 5000; ++i) {
                [[maybe_unused]] const QList<Finding> ignored = checkDisplays(input);
            }
            isDone = true;
        });
        int failures = 0;
        while (!isDone) {
            QTcpServer agent;
            failures += agent.listen(QHostAddress(QHostAddress::AnyIPv4), agentPort) ? 0 : 1;
        }
        doctor.join();
        QCOMPARE(failures, 0);
    }

    void wrongModeOfTheSocketDirectoryIsReported_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("found");
        QTest::newRow("closed") << 0755 << u"FAIL \"%1\" is not open to all users"_s;
        QTest::newRow("without the sticky bit") << 0777 << u"WARN In \"%1\" others can replace sockets"_s;
    }
    void wrongModeOfTheSocketDirectoryIsReported()
    {
        QFETCH(int, mode);
        QFETCH(QString, found);
        const QString path = surroundings->path("tmp/.X11-unix");
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), static_cast<mode_t>(mode)), 0);
        const QList<Finding> findings = checkSocketDirectory(surroundings->input());
        QVERIFY2(texts(findings).first().startsWith(found.arg(path)), qPrintable(texts(findings).first()));
        QVERIFY(haveRemedies(findings));
    }

    void socketDirectoryThatIsALinkIsAFailure()
    {
        const QString path = surroundings->path("tmp/.X11-unix");
        QVERIFY(QDir().rmdir(path));
        QCOMPARE(texts(checkSocketDirectory(surroundings->input())),
                 QStringList{u"WARN There is no directory \"%1\"; the first X server creates it"_s.arg(path)});
        QVERIFY(QFile::link(surroundings->path("tmp"), path)); // another user may have created it
        QCOMPARE(texts(checkSocketDirectory(surroundings->input())),
                 QStringList{u"FAIL \"%1\" is not a directory"_s.arg(path)});
    }

    void foreignSocketDirectoryIsAWarning()
    {
        if (::geteuid() != 0) {
            QSKIP("Only root can create a directory of another user");
        }
        const QString path = surroundings->path("tmp/.X11-unix");
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), 0755), 0);
        QCOMPARE(::chown(QFile::encodeName(path).constData(), 1234, 1234), 0);
        const QList<Finding> findings = checkSocketDirectory(surroundings->input());
        QVERIFY(texts(findings).first().startsWith(
            u"WARN \"%1\" belongs to another user (1234). Sessions work"_s.arg(path)));
        QVERIFY(haveRemedies(findings));
    }

    void portRangeIsChecked_data()
    {
        QTest::addColumn<QByteArray>("ephemeral");
        QTest::addColumn<QByteArray>("reserved");
        QTest::addColumn<bool>("isFine");
        QTest::newRow("within") << "32768\t60999\n"_ba
                                << "\n"_ba << false;
        QTest::newRow("begins with the last one") << "41199\t60999\n"_ba
                                                  << "\n"_ba << false;
        QTest::newRow("begins after the last one") << "41200\t60999\n"_ba
                                                   << "\n"_ba << true;
        QTest::newRow("ends before the first one") << "30000\t41099\n"_ba
                                                   << "\n"_ba << true;
        QTest::newRow("reserved") << "32768\t60999\n"_ba
                                  << "80,41100-41199\n"_ba << true;
        QTest::newRow("reserved in part") << "32768\t60999\n"_ba
                                          << "41100-41198\n"_ba << false;
        QTest::newRow("unreadable") << ""_ba
                                    << ""_ba << true;
    }
    void portRangeIsChecked()
    {
        QFETCH(QByteArray, ephemeral);
        QFETCH(QByteArray, reserved);
        QFETCH(bool, isFine);
        putFile(surroundings->path("net/ip_local_port_range"), ephemeral);
        putFile(surroundings->path("net/ip_local_reserved_ports"), reserved);
        const QList<Finding> findings = checkPortRange(surroundings->input());
        QCOMPARE(findings.size(), 1);
        QCOMPARE(findings.first().level == Finding::Level::Ok, isFine);
        QVERIFY2(findings.first().text.contains("41100-41199"_L1), qPrintable(findings.first().text));
        QVERIFY(haveRemedies(findings));
    }

    void remedyKeepsPortsThatAreReserved()
    {
        putFile(surroundings->path("net/ip_local_port_range"), "32768\t60999\n");
        putFile(surroundings->path("net/ip_local_reserved_ports"), "80,41100-41198\n");
        const QString remedy = checkPortRange(surroundings->input()).first().remedy;
        QVERIFY2(remedy.contains("ip_local_reserved_ports=80,41100-41198,41100-41199 "_L1), qPrintable(remedy));
    }

    void settingsDecideWhetherSessionsEndAtLogout_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("user");
        QTest::addColumn<bool>("ends");
        const QString main = u"etc/systemd/logind.conf"_s;
        const auto row = [](const char *name, const QString &file, const QByteArray &text, bool ends,
                            const QString &user = u"anna"_s) { QTest::newRow(name) << file << text << user << ends; };
        row("comment", main, "[Login]\n#KillUserProcesses=yes\n", false);
        row("yes", main, "[Login]\nKillUserProcesses=yes\n", true);
        row("blanks", main, "[Login]\n KillUserProcesses = on \n", true);
        row("other section", main, "[Other]\nKillUserProcesses=yes\n", false);
        row("last word", main, "[Login]\nKillUserProcesses=yes\nKillUserProcesses=no\n", false);
        row("folder of packages", u"usr/lib/systemd/logind.conf.d/a.conf"_s, "[Login]\nKillUserProcesses=yes\n", true);
        row("folder of this run", u"run/systemd/logind.conf.d/a.conf"_s, "[Login]\nKillUserProcesses=yes\n", true);
        row("root", main, "[Login]\nKillUserProcesses=yes\n", false, u"root"_s);
        row("root with others excluded", main, "[Login]\nKillUserProcesses=yes\nKillExcludeUsers=eve\n", true,
            u"root"_s);
        row("nobody excluded", main, "[Login]\nKillUserProcesses=yes\nKillExcludeUsers=\n", true, u"root"_s);
        row("excluded", main, "[Login]\nKillUserProcesses=yes\nKillExcludeUsers=eve anna\n", false);
        row("only others", main, "[Login]\nKillUserProcesses=yes\nKillOnlyUsers=eve\n", false);
        row("only some", main, "[Login]\nKillOnlyUsers=eve anna\n", true);
    }
    void settingsDecideWhetherSessionsEndAtLogout()
    {
        QFETCH(QString, file);
        QFETCH(QByteArray, text);
        QFETCH(QString, user);
        QFETCH(bool, ends);
        DoctorInput input = surroundings->input();
        input.userName = user;
        const auto found = [&input] { return texts(checkLogout(input)).join(u'\n'); };
        QCOMPARE(found(), u"OK Nothing ends the processes of users who log out"_s);
        make("run/systemd/system");
        QCOMPARE(found(), u"OK Processes stay after a logout"_s);
        putBelow(file, text);
        const QString end = u"FAIL Sessions end when %1 logs out (KillUserProcesses)"_s.arg(user);
        QCOMPARE(found(), ends ? end : u"OK Processes stay after a logout"_s);
        QVERIFY(haveRemedies(checkLogout(input)));
        // Lingering makes no difference to the processes of a login session.
        putBelow(u"var/lib/systemd/linger/"_s + user, "");
        QCOMPARE(found(), ends ? end : u"OK Processes stay after a logout"_s);
    }

    void settingsFileReplacesOneWithTheSameName()
    {
        make("run/systemd/system");
        putBelow(u"run/systemd/logind.conf.d/b.conf"_s, "[Login]\nKillUserProcesses=yes\n");
        putBelow(u"etc/systemd/logind.conf.d/b.conf"_s, "");
        QCOMPARE(texts(checkLogout(surroundings->input())), QStringList{u"OK Processes stay after a logout"_s});
        putBelow(u"usr/lib/systemd/logind.conf.d/c.conf"_s, "[Login]\nKillUserProcesses=yes\n");
        putBelow(u"etc/systemd/logind.conf.d/a.conf"_s, "[Login]\nKillUserProcesses=no\n");
        QVERIFY(texts(checkLogout(surroundings->input()))
                    .first()
                    .startsWith(u"FAIL"_s)); // files are read in the order of their names, not of their folders
    }

    void logoutEndsSessionsOfAUserWithoutAName()
    {
        make("run/systemd/system");
        make("var/lib/systemd/linger");
        putBelow(u"etc/systemd/logind.conf"_s, "[Login]\nKillUserProcesses=yes\n");
        DoctorInput input = surroundings->input();
        input.userName.clear();
        QVERIFY(texts(checkLogout(input)).first().startsWith(u"FAIL"_s));
    }

    void serverOfTheUsersServiceManagerNeedsLingering()
    {
        make("run/systemd/system");
        putBelow(u"etc/systemd/logind.conf"_s, "[Login]\nKillUserProcesses=yes\n");
        const Impostor impostor(serverEnvironment(u"anna"_s, u"/"_s));
        QTRY_VERIFY(isServerProcess(impostor.pid()));
        putFile(surroundings->path("zarvo/host/server_pid"), QByteArray::number(impostor.pid()));
        putFile(surroundings->path("zarvo/host/server_port"), "1");
        const QString group = u"proc/%1/cgroup"_s.arg(impostor.pid());
        const auto found = [this] { return texts(checkLogout(surroundings->input())).join(u'\n'); };
        putBelow(group, "0::/user.slice/user-1000.slice/session-3.scope\n");
        QCOMPARE(found(), u"FAIL Sessions end when anna logs out (KillUserProcesses)"_s);
        putBelow(group, "0::/user.slice/user-1000.slice/user@1000.service/app.slice/run-r1.scope\n");
        QCOMPARE(found(), u"FAIL The server ends with the last login session of anna, because lingering is off"_s);
        QVERIFY(haveRemedies(checkLogout(surroundings->input())));
        putBelow(u"var/lib/systemd/linger/anna"_s, "");
        QCOMPARE(found(), u"OK The server belongs to no login session, and stays after a logout"_s);
    }

private:
    void make(const char *name) const { QVERIFY(QDir().mkpath(surroundings->path(name))); }

    /** Writes a file in the surroundings and creates its parent folders. */
    void putBelow(const QString &name, const QByteArray &text) const
    {
        const QString path = surroundings->path(name.toUtf8().constData());
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        putFile(path, text);
    }

    void putProgram(const char *name) const
    {
        putFile(surroundings->path(name), "#!/bin/sh\n");
        QCOMPARE(::chmod(QFile::encodeName(surroundings->path(name)).constData(), 0700), 0);
    }

    std::unique_ptr<DoctorSurroundings> surroundings;
};

ZARVO_TEST(TestDoctorSystem)
#include "tst_doctorsystem.moc"
