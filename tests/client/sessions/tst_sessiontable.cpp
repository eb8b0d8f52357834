// SPDX-License-Identifier: MIT
#include "client/sessions/sessiontable.h"
#include "client/terminal/textwidth.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

class TestSessionTable : public QObject
{
    Q_OBJECT

private slots:
    void nothingIsCutWithoutAWidth()
    {
        const QString table = sessionTable(
            {makeSession(u"12"_s, u"統合"_s), makeSession(u"34"_s, u"xterm"_s, u"retry"_s)}, {.localHost = u"here"_s});
        QCOMPARE(table, u"ID        NAME   WHERE  MODE     STATE      STARTED           LAST CONNECTED\n"
                        "12000000  統合   here   desktop  suspended  2026-01-31 23:59  -\n"
                        "34000000  xterm  here   desktop  offered    2026-01-31 23:59  -\n"_s);
    }

    void linesFitTheTerminal()
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

    void hostThatIsNotTrustedIsMarked()
    {
        SessionEntry far = makeSession(u"1"_s, u"name"_s);
        far.location = u"ssh://far/"_s;
        far.trusted = false;
        QVERIFY(sessionTable({far}, {.localHost = u"here"_s}).contains(u"name  ! far  desktop"_s));
        QVERIFY(plainSessionTable({far}, u"here"_s).contains(u"\t! far\t"_s));
        QVERIFY(!untrustedNote({far}).isEmpty());
        far.trusted = true;
        QVERIFY(!sessionTable({far}, {.localHost = u"here"_s}).contains(u'!'));
        QVERIFY(untrustedNote({far}).isEmpty());
    }

    void nameIsNarrowedFirst()
    {
        const QString line = sessionTable({makeSession(u"1"_s, QString(100, u'n'))},
                                          {.width = 80, .legend = false, .localHost = u"h"_s});
        QVERIFY(line.contains(u"nnn…  h  desktop  suspended  2026-01-31 23:59  -"_s));
        QCOMPARE(displayWidth(line.chopped(1)), 80);
    }

    void longHostLeavesTheStateVisible()
    {
        SessionEntry far = makeSession(u"1"_s, u"name"_s);
        far.location = u"ssh://me@%1/"_s.arg(QString(63, u'h'));
        const SessionList sessions = {far, makeSession(u"2"_s, QString(100, u'n'))};
        for (const int width : {60, 80, 100, 133}) {
            const QStringList lines =
                sessionTable(sessions, {.width = width, .localHost = u"here"_s}).split(u'\n', Qt::SkipEmptyParts);
            for (const QString &line : lines.sliced(1)) {
                QVERIFY2(line.contains(u"suspended"_s), qPrintable(line));
                QVERIFY2(displayWidth(line) <= width, qPrintable(line));
            }
            QVERIFY2(lines[1].contains(u"hhhhhh"_s), qPrintable(lines[1]));
        }
        const QString narrow = sessionTable(sessions, {.width = 60, .localHost = u"here"_s});
        QVERIFY(!narrow.contains(u"STARTED"_s));
        QVERIFY(sessionTable(sessions, {.localHost = u"here"_s}).contains(QString(63, u'h'))); // no terminal
    }

    void timesAreHiddenBeforeTheState()
    {
        const SessionList sessions = {makeSession(u"1"_s, QString(100, u'n'))};
        const QString middle = sessionTable(sessions, {.width = 65, .localHost = u"here"_s});
        QVERIFY2(middle.contains(u"STARTED"_s) && !middle.contains(u"LAST"_s), qPrintable(middle));
        const QString narrow = sessionTable(sessions, {.width = 45, .localHost = u"here"_s});
        QVERIFY2(narrow.contains(u"suspended\n"_s) && !narrow.contains(u"STARTED"_s), qPrintable(narrow));
        QCOMPARE(displayWidth(narrow.section(u'\n', 1, 1)), 45); // the name takes the remaining columns
    }

    void invalidLocationIsNotThisHost()
    {
        SessionEntry entry = makeSession(u"1"_s, u"name"_s);
        for (const char *location : {"ssh://-oProxyCommand=x;y z/", "ssh://a b/", "nonsense", "ssh:///x"}) {
            entry.location = QString::fromLatin1(location);
            QCOMPARE(plainSessionTable({entry}, u"here"_s).section(u'\t', 2, 2), u"?"_s);
        }
    }

    void colourIsClosedWhereverALineIsCut()
    {
        const SessionList sessions = {makeSession(u"1"_s, u"a"_s, u"disconnect"_s)};
        QVERIFY(sessionTable(sessions, {.colour = true, .localHost = u"h"_s}).contains(u"\x1b[32mconnected\x1b[0m"_s));
        for (int width = 1; width < 80; ++width) { // cut before, within and after the coloured part
            QString line =
                sessionTable(sessions, {.width = width, .legend = false, .colour = true, .localHost = u"h"_s});
            line.remove(u"\x1b[32m"_s).remove(u"\x1b[0m"_s);
            QVERIFY(!line.contains(u'\x1b'));
            QVERIFY(displayWidth(line.chopped(1)) <= width);
        }
    }

    void plainTableHasWholeIdsAndTabs()
    {
        SessionEntry entry = makeSession(u"1"_s, u"tab\there"_s);
        entry.location = u"ssh://me@far:22/x"_s;
        QCOMPARE(plainSessionTable({entry}, u"here"_s),
                 entry.id + u"\ttab\uFFFDhere\tfar\tdesktop\tsuspended\t2026-01-31T23:59:58\t\n"_s);
    }
};

ZARVO_TEST(TestSessionTable)
#include "tst_sessiontable.moc"
