// SPDX-License-Identifier: MIT
#include "live/peerlists.h"
#include "tests/live/sessionlists.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestPeerLists : public QObject
{
    Q_OBJECT

private slots:
    void peersAreInTheOrderOfTheirKeys();
    void peersListIsReplaced();
    void forgettingAnUnknownPeerDoesNothing();
};

void TestPeerLists::peersAreInTheOrderOfTheirKeys()
{
    PeerLists lists;
    lists.store(u"b"_s, later(), listOf({u"b2"_s, u"b1"_s}));
    lists.store(u"a"_s, later(), listOf({u"a1"_s}));
    lists.store(u"c"_s, later(), {});
    lists.store(u"B"_s, later(), listOf({u"B1"_s}));
    QCOMPARE(idsOf(lists.sessions()), (QStringList{u"B1"_s, u"a1"_s, u"b2"_s, u"b1"_s}));
}

void TestPeerLists::peersListIsReplaced()
{
    PeerLists lists;
    lists.store(u"a"_s, later(), listOf({u"1"_s, u"2"_s}));
    lists.store(u"a"_s, later(), listOf({u"3"_s}));
    QCOMPARE(idsOf(lists.sessions()), QStringList{u"3"_s});
    lists.store(u"a"_s, later(), {});
    QVERIFY(lists.sessions().isEmpty());
}

void TestPeerLists::forgettingAnUnknownPeerDoesNothing()
{
    PeerLists lists;
    lists.store(u"a"_s, later(), listOf({u"1"_s}));
    lists.forget(u"b"_s);
    QCOMPARE(idsOf(lists.sessions()), QStringList{u"1"_s});
}

ZARVO_TEST(TestPeerLists)
#include "tst_peerlists.moc"
