// SPDX-License-Identifier: MIT
#include "live/peerlists.h"
#include "support/json.h"
#include "tests/helpers/collectinglogger.h"
#include "tests/helpers/files.h"
#include "tests/helpers/fulldisk.h"
#include "tests/live/sessionlists.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

/** The file as the lists write it. */
class TestPeerFile : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        lists = std::make_unique<PeerLists>();
        lists->keepFile(path());
    }

    void fileHoldsWhatEachPeerHasReported()
    {
        QList<SessionInfo> reported = listOf({u"1"_s, u"2"_s});
        reported[1].location = QUrl(u"ssh://me@host:22/x"_s);
        lists->store(u"192.0.2.7:4711"_s, later(), reported);
        lists->store(u"fe80::1%eth0:4712"_s, later(), {});
        QCOMPARE(contentOf(path()), R"([{"address":"192.0.2.7","port":4711,"sessions":[{"id":"1","location":""},)"
                                    R"({"id":"2","location":"ssh://me@host:22/x"}]},)"
                                    R"({"address":"fe80::1%eth0","port":4712,"sessions":[]}])"
                                    "\n"_ba);
        QCOMPARE(modeOf(path()), 0600);
    }

    void fileEndsWithTheLastList()
    {
        QVERIFY(!QFile::exists(path()));
        lists->store(u"192.0.2.7:1"_s, later(), listOf({u"1"_s}));
        lists->store(u"192.0.2.8:1"_s, earlier(), listOf({u"2"_s}));
        lists->purge();
        QVERIFY(!contentOf(path()).contains("192.0.2.8"));
        lists->forget(u"192.0.2.9:1"_s);
        QVERIFY(contentOf(path()).contains("192.0.2.7"));
        lists->forget(u"192.0.2.7:1"_s);
        QVERIFY(!QFile::exists(path()));
    }

    void whatAnEarlierServerLeftIsRemoved()
    {
        putFile(path(), "[]");
        PeerLists others;
        others.keepFile(path());
        QVERIFY(!QFile::exists(path()));
    }

    void listThatCannotBeWrittenLeavesNoOldFile()
    {
        lists->store(u"192.0.2.7:1"_s, later(), listOf({u"1"_s}));
        QVERIFY(QFile::exists(path()));
        CollectingLogger logger;
        {
            const FullDisk disk;
            lists->store(u"192.0.2.7:1"_s, later(), listOf({u"2"_s}));
        }
        QVERIFY(!QFile::exists(path()));
        const QStringList lines = logger.takeLines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().startsWith(u"Warning: Failed to write to the file"_s), qPrintable(lines.first()));
        lists->store(u"192.0.2.7:1"_s, later(), listOf({u"2"_s}));
        QVERIFY(contentOf(path()).contains("\"2\""));
    }

private:
    [[nodiscard]] QString path() const { return folder->filePath(u"server_peers"_s); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<PeerLists> lists;
};

ZARVO_TEST(TestPeerFile)
#include "tst_peerfile.moc"
