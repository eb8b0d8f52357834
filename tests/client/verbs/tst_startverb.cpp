// SPDX-License-Identifier: MIT
#include "client/verbs/verbs.h"
#include "tests/client/verbs/verbserver.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestStartVerb : public QObject
{
    Q_OBJECT

private slots:
    void optionsAfterTheCommandBelongToIt()
    {
        VerbServer server;
        QCOMPARE(server.run(startVerb(), {u"--geometry"_s, u"640x480"_s, u"ls"_s, u"--json"_s}), ExitCode::Done);
        QCOMPARE(server.methods(), QStringList{u"Start"_s});
        QCOMPARE(server.lastParameters().sliced(1), (QStringList{u"ls --json"_s, u"640x480"_s}));
        QVERIFY2(server.output.contains(u"password  secret12\n"_s), qPrintable(server.output));
    }

    void wrongUsageStartsNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<ExitCode>("code");
        QTest::newRow("blank command") << QStringList{u" "_s} << ExitCode::Usage;
        QTest::newRow("no size") << QStringList{u"--geometry"_s, u"big"_s, u"xterm"_s} << ExitCode::Usage;
        QTest::newRow("no viewer") << QStringList{u"--connect"_s, u"xterm"_s} << ExitCode::NoViewer;
    }
    void wrongUsageStartsNothing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(ExitCode, code);
        const EnvironmentVariable viewer("ZARVO_VIEWER", "no-such-viewer");
        VerbServer server;
        QCOMPARE(server.run(startVerb(), arguments), code);
        QCOMPARE(server.methods(), QStringList());
        QCOMPARE(server.output, QString());
    }

    void offerIsPrintedBeforeTheViewerRuns()
    {
        const QTemporaryDir folder;
        const QByteArray seen = QFile::encodeName(folder.filePath(u"seen"_s));
        const EnvironmentVariable viewer("ZARVO_VIEWER",
                                         "sh -c \"cat /proc/$PPID/fd/1 > " + seen + "; echo $3\" viewer");
        VerbServer server;
        QCOMPARE(server.run(startVerb(), {u"--connect"_s, u"xterm"_s}), ExitCode::Done);
        QVERIFY(server.output.endsWith(u"password  secret12\n"_s));
        QCOMPARE(QString::fromUtf8(contentOf(folder.filePath(u"seen"_s))), server.output);
        QCOMPARE(server.errors, u"127.0.0.1::41234\n"_s); // what the viewer prints is no data of ours
    }

    void viewerThatFailsLeavesTheOfferPrinted()
    {
        const EnvironmentVariable viewer("ZARVO_VIEWER", "false");
        VerbServer server;
        QCOMPARE(server.run(startVerb(), {u"--connect"_s, u"xterm"_s}), ExitCode::NoViewer);
        QVERIFY2(server.output.contains(u"password  secret12\n"_s), qPrintable(server.output));
    }
};

ZARVO_TEST(TestStartVerb)
#include "tst_startverb.moc"
