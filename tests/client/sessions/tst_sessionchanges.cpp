// SPDX-License-Identifier: MIT
#include "client/sessions/sessionchanges.h"
#include "tests/client/sessions.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestSessionChanges : public QObject
{
    Q_OBJECT

private slots:
    void addedChangedAndRemovedAreFound()
    {
        const SessionEntry stays = makeSession(u"1"_s, u"stays"_s);
        const SessionEntry goes = makeSession(u"2"_s, u"goes"_s);
        const SessionEntry before = makeSession(u"3"_s, u"changes"_s);
        const SessionEntry after = makeSession(u"3"_s, u"changes"_s, u"retry"_s);
        const SessionEntry comes = makeSession(u"4"_s, u"comes"_s);
        const QList<SessionChange> changes = sessionChanges({stays, goes, before}, {comes, after, stays});
        QCOMPARE(changes.size(), 3);
        QVERIFY(changes[0].kind == SessionChange::Kind::Removed && changes[0].session == goes);
        QVERIFY(changes[1].kind == SessionChange::Kind::Added && changes[1].session == comes);
        QVERIFY(changes[2].kind == SessionChange::Kind::Changed && changes[2].session == after);
        QCOMPARE(changes[1].toJson()["event"].asString(), std::string("added"));
    }

    void removedComeFirst()
    {
        const SessionEntry one = makeSession(u"1"_s, {});
        const SessionEntry two = makeSession(u"2"_s, {});
        QVERIFY(sessionChanges({one, two}, {two, one}).isEmpty());
    }

    void sameIdOnTwoHostsIsTwoSessions()
    {
        const SessionEntry here = makeSession(u"1"_s, {});
        SessionEntry there = here;
        there.location = u"ssh://far/x"_s;
        const QList<SessionChange> changes = sessionChanges({here}, {here, there});
        QCOMPARE(changes.size(), 1);
        QVERIFY(changes[0].kind == SessionChange::Kind::Added && changes[0].session == there);
    }
};

ZARVO_TEST(TestSessionChanges)
#include "tst_sessionchanges.moc"
