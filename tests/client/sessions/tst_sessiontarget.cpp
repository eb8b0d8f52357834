// SPDX-License-Identifier: MIT
#include "client/sessions/sessiontarget.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestSessionTarget : public QObject
{
    Q_OBJECT

private slots:
    void targetIsFound_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("name");
        const int done = static_cast<int>(ExitCode::Done);
        const int missing = static_cast<int>(ExitCode::NoSuchSession);
        const int ambiguous = static_cast<int>(ExitCode::Ambiguous);
        QTest::newRow("whole id") << u"abc1"_s.leftJustified(32, u'0') << done << u"one"_s;
        QTest::newRow("prefix") << u"abc1"_s << done << u"one"_s;
        QTest::newRow("prefix in capitals") << u"ABC1"_s << done << u"one"_s;
        QTest::newRow("prefix of two") << u"abc"_s << ambiguous << QString();
        QTest::newRow("name") << u"one"_s << done << u"one"_s;
        QTest::newRow("beginning of a name") << u"on"_s << missing << QString();
        QTest::newRow("name of two") << u"twin"_s << ambiguous << QString();
        QTest::newRow("name of one and prefix of another") << u"abc2"_s << ambiguous << QString();
        QTest::newRow("whole id before name") << u"4"_s.leftJustified(32, u'0') << done << u"whole"_s;
        QTest::newRow("name and prefix of the same") << u"5"_s << done << u"5"_s;
        QTest::newRow("no match") << u"nobody"_s << missing << QString();
        QTest::newRow("more digits than an id has") << u"abc1"_s.leftJustified(33, u'0') << missing << QString();
        QTest::newRow("empty, with several sessions") << QString() << ambiguous << QString();
    }
    void targetIsFound()
    {
        const SessionList sessions = {makeSession(u"abc1"_s, u"one"_s),
                                      makeSession(u"abc2"_s, u"two"_s),
                                      makeSession(u"1"_s, u"twin"_s),
                                      makeSession(u"2"_s, u"twin"_s),
                                      makeSession(u"3"_s, u"abc2"_s),
                                      makeSession(u"4"_s, u"whole"_s),
                                      makeSession(u"6"_s, u"4"_s.leftJustified(32, u'0')),
                                      makeSession(u"5"_s, u"5"_s)};
        QFETCH(QString, target);
        SessionEntry found;
        Failure failure;
        const bool isFound = findSession(sessions, target, &found, &failure);
        QTEST(static_cast<int>(failure.code), "code");
        QTEST(found.name, "name");
        QCOMPARE(isFound, failure.code == ExitCode::Done);
        QCOMPARE(failure.text.isEmpty(), isFound);
    }

    void ambiguousTargetListsTheMatches()
    {
        SessionEntry found;
        Failure failure;
        QVERIFY(!findSession({makeSession(u"1"_s, u"red"_s), makeSession(u"2"_s, u"blue"_s)}, {}, &found, &failure));
        QVERIFY(failure.text.contains(u"red"_s) && failure.text.contains(u"blue"_s));
    }

    void placeholdersInNamesAreNotReplaced()
    {
        SessionEntry found;
        Failure failure;
        QVERIFY(!findSession({makeSession(u"1"_s, u"%2 %3"_s), makeSession(u"2"_s, u"%2 %3"_s)}, u"%2 %3"_s, &found,
                             &failure));
        QVERIFY2(failure.text.startsWith(u"\"%2 %3\" is the name of 2 sessions; say which:\n"_s),
                 qPrintable(failure.text));
        QCOMPARE(failure.text.count(u"%2 %3"_s), 3);
    }

    void emptyTargetIsTheOnlySession()
    {
        SessionEntry found;
        Failure failure;
        QVERIFY(findSession({makeSession(u"1"_s, u"red"_s)}, {}, &found, &failure));
        QCOMPARE(found.name, u"red"_s);
        QVERIFY(!findSession({}, {}, &found, &failure));
        QVERIFY(failure.code == ExitCode::NoSuchSession);
    }
};

ZARVO_TEST(TestSessionTarget)
#include "tst_sessiontarget.moc"
