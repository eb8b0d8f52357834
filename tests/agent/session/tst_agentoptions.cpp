// SPDX-License-Identifier: MIT
#include "agent/session/agentoptions.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class AgentOptionsTest final : public QObject
{
    Q_OBJECT

private slots:
    void desktopIsASize()
    {
        AgentOptions options;
        QString error;
        QVERIFY(parseAgentArguments({u"800x600"_s, u"41007"_s}, &options, &error));
        QVERIFY(!options.rootless);
        QCOMPARE(options.size, QSize(800, 600));
        QCOMPARE(options.port, quint16{41007});
        QVERIFY(error.isEmpty());
    }

    void rootlessHasASize()
    {
        AgentOptions options;
        QString error;
        QVERIFY(parseAgentArguments({u"rootless"_s, u"65535"_s}, &options, &error));
        QVERIFY(options.rootless);
        QVERIFY(options.size.isValid());
        QCOMPARE(options.port, quint16{65535});
    }

    void badArgumentsAreRefused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("none") << QStringList();
        QTest::newRow("one") << QStringList{u"800x600"_s};
        QTest::newRow("three") << QStringList{u"800x600"_s, u"41000"_s, u"x"_s};
        QTest::newRow("geometry") << QStringList{u"Rootless"_s, u"41000"_s};
        QTest::newRow("port too low") << QStringList{u"800x600"_s, u"40999"_s};
        QTest::newRow("port too high") << QStringList{u"800x600"_s, u"65536"_s};
        QTest::newRow("port negative") << QStringList{u"800x600"_s, u"-41000"_s};
        QTest::newRow("port with a sign") << QStringList{u"800x600"_s, u"+41000"_s};
        QTest::newRow("port with a blank") << QStringList{u"800x600"_s, u" 41000"_s};
        QTest::newRow("port with zeros") << QStringList{u"800x600"_s, u"041000"_s};
        QTest::newRow("no port") << QStringList{u"800x600"_s, QString()};
    }

    void badArgumentsAreRefused()
    {
        QFETCH(QStringList, arguments);
        AgentOptions options;
        QString error;
        QVERIFY(!parseAgentArguments(arguments, &options, &error));
        QVERIFY(!error.isEmpty());
        QCOMPARE(options.port, quint16{0});
    }

    void portIsThatOfTheDisplay_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<int>("display");
        QTest::addColumn<bool>("isRight");
        QTest::newRow("first") << 41000 << 0 << true;
        QTest::newRow("last") << 65535 << 24535 << true;
        QTest::newRow("one too low") << 41006 << 7 << false;
        QTest::newRow("one too high") << 41008 << 7 << false;
        // 41000 + 65535 in 16 bits.
        QTest::newRow("overflow") << 40999 << 65535 << false;
    }

    void portIsThatOfTheDisplay()
    {
        QFETCH(int, port);
        QFETCH(int, display);
        QFETCH(bool, isRight);
        QString error;
        QCOMPARE(checkPort(static_cast<quint16>(port), static_cast<quint16>(display), &error), isRight);
        QCOMPARE(error.isEmpty(), isRight);
    }

    void displayIsRead_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("display"); // -1: refused
        QTest::newRow("plain") << QByteArray("12") << 12;
        QTest::newRow("line feed") << QByteArray("12\n") << 12;
        QTest::newRow("zero") << QByteArray("0") << 0;
        QTest::newRow("largest") << QByteArray("65535") << 65535;
        QTest::newRow("too large") << QByteArray("65536") << -1;
        QTest::newRow("negative") << QByteArray("-1") << -1;
        QTest::newRow("empty") << QByteArray() << -1;
        QTest::newRow("word") << QByteArray("twelve") << -1;
        QTest::newRow("two") << QByteArray("1 2") << -1;
        QTest::newRow("long") << QByteArray(1000, '1') << -1;
    }

    void displayIsRead()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, display);
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"display"_s);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        quint16 read = 7;
        QString error;
        QCOMPARE(readDisplayNumber(path, &read, &error), display >= 0);
        QCOMPARE(int{read}, display >= 0 ? display : 7);
        QCOMPARE(error.contains(path), display < 0);
    }

    void reportsMissingDisplay()
    {
        quint16 display = 0;
        QString error;
        QVERIFY(!readDisplayNumber(u"/nowhere/display"_s, &display, &error));
        QVERIFY(error.contains(u"/nowhere/display"_s));
    }
};

ZARVO_TEST(AgentOptionsTest)
#include "tst_agentoptions.moc"
