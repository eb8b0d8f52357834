// SPDX-License-Identifier: MIT
#include "client/sessiontable.h"
#include "client/textwidth.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

class TestSessionTable : public QObject
{
    Q_OBJECT

private slots:
    void whole()
    {
        const QString table = sessionTable(
            {makeSession(u"12"_s, u"統合"_s), makeSession(u"34"_s, u"xterm"_s, u"retry"_s)}, {.localHost = u"here"_s});
        QCOMPARE(table, u"ID        NAME   WHERE  MODE     STATE      STARTED           LAST CONNECTED\n"
                        "12000000  統合   here   desktop  suspended  2026-01-31 23:59  -\n"
                        "34000000  xterm  here   desktop  offered    2026-01-31 23:59  -\n"_s);
    }

    void noWiderThanTheTerminal()
    {
        const SessionList sessions = {makeSession(u"1"_s, u"長い名前"_s.repeated(30)), makeSession(u"2"_s, u"b"_s)};
        for (int width = 1; width < 200; ++width) {
            const QStringList lines =
                sessionTable(sessions, {.width = width, .localHost = u"here"_s}).split(u'\n', Qt::SkipEmptyParts);
            QCOMPARE(lines.size(), 3);
            for (const QString &line : lines) {
                QVERIFY(displayWidth(line) <= width);
            }
        }
    }

    void theNameGivesWay()
    {
        const QString line = sessionTable({makeSession(u"1"_s, QString(100, u'n'))},
                                          {.width = 80, .legend = false, .localHost = u"h"_s});
        QVERIFY(line.contains(u"nnn…  h  desktop  suspended  2026-01-31 23:59  -"_s));
        QCOMPARE(displayWidth(line.chopped(1)), 80);
    }

    void colour()
    {
        const SessionList sessions = {makeSession(u"1"_s, u"a"_s, u"disconnect"_s)};
        QVERIFY(sessionTable(sessions, {.colour = true, .localHost = u"h"_s}).contains(u"\x1b[32mconnected\x1b[0m"_s));
        for (int width = 1; width < 80; ++width) { // cut before, within and behind the coloured part
            QString line =
                sessionTable(sessions, {.width = width, .legend = false, .colour = true, .localHost = u"h"_s});
            line.remove(u"\x1b[32m"_s).remove(u"\x1b[0m"_s);
            QVERIFY(!line.contains(u'\x1b'));
            QVERIFY(displayWidth(line.chopped(1)) <= width);
        }
    }

    void forScripts()
    {
        SessionEntry entry = makeSession(u"1"_s, u"tab\there"_s);
        entry.location = u"ssh://me@far:22/x"_s;
        QCOMPARE(plainSessionTable({entry}, u"here"_s),
                 entry.id + u"\ttab\uFFFDhere\tfar\tdesktop\tsuspended\t2026-01-31T23:59:58\t\n"_s);
    }
};

ZARVO_TEST(TestSessionTable)
#include "tst_sessiontable.moc"
