// SPDX-License-Identifier: MIT
#include "agent/display/windowmanager.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

#include <chrono>

using namespace Qt::StringLiterals;

class WindowManagerTest final : public QObject
{
    Q_OBJECT

private:
    QByteArray searchPath;
    std::unique_ptr<QTemporaryDir> directory;

    QString path(const QString &name) const { return directory->filePath(name); }

private slots:
    void init()
    {
        searchPath = qgetenv("PATH");
        directory = std::make_unique<QTemporaryDir>();
        qputenv("PATH", QFile::encodeName(directory->path()));
    }

    void cleanup() { qputenv("PATH", searchPath); }

    void patienceEndsBeforeThatOfTheServer_data()
    {
        QTest::addColumn<int>("sinceStart"); // in milliseconds
        QTest::addColumn<int>("patience");
        QTest::newRow("fast X server") << 0 << 8000;
        QTest::newRow("slow X server") << 5000 << 8000;
        QTest::newRow("slower X server") << 7600 << 5400;
        QTest::newRow("slowest X server") << 10000 << 3000;
        QTest::newRow("no time left") << 13000 << 0;
        QTest::newRow("machine that stood still") << 60000 << 0;
    }

    void patienceEndsBeforeThatOfTheServer()
    {
        QFETCH(const int, sinceStart);
        QFETCH(const int, patience);
        QCOMPARE(windowManagerPatience(std::chrono::milliseconds(sinceStart)).count(), patience);
    }

    void noneIsChosenWhereNoneIsInstalled()
    {
        QList<QByteArray> arguments = {"before"};
        QString error;
        QVERIFY(prepareWindowManager(path(u"settings"_s), &arguments, &error));
        QVERIFY(arguments.isEmpty());
        QVERIFY(!QFileInfo::exists(path(u"settings"_s)));
    }

    void matchboxIsChosenWithoutOpenbox()
    {
        QVERIFY(writeScript(path(u"matchbox-window-manager"_s), ""));
        QList<QByteArray> arguments;
        QString error;
        QVERIFY(prepareWindowManager(path(u"settings"_s), &arguments, &error));
        QCOMPARE(arguments.first(), QFile::encodeName(path(u"matchbox-window-manager"_s)));
    }

    void openboxIsPreferredAndGetsItsSettings()
    {
        QVERIFY(writeScript(path(u"matchbox-window-manager"_s), ""));
        QVERIFY(writeScript(path(u"openbox"_s), ""));
        QList<QByteArray> arguments;
        QString error;
        QVERIFY(prepareWindowManager(path(u"settings"_s), &arguments, &error));
        QCOMPARE(arguments.first(), QFile::encodeName(path(u"openbox"_s)));
        QVERIFY(arguments.contains(QFile::encodeName(path(u"settings"_s))));
        QXmlStreamReader reader(contentOf(path(u"settings"_s)));
        QStringList elements;
        while (!reader.atEnd()) {
            if (reader.readNext() == QXmlStreamReader::StartElement) {
                elements.append(reader.name().toString());
            }
        }
        QVERIFY(!reader.hasError());
        QVERIFY(elements.contains(u"maximized"_s) && elements.contains(u"decor"_s));
    }

    void settingsThatCannotBeWrittenAreReported()
    {
        QVERIFY(writeScript(path(u"openbox"_s), ""));
        QList<QByteArray> arguments;
        QString error;
        QVERIFY(!prepareWindowManager(u"/nowhere/settings"_s, &arguments, &error));
        QVERIFY(error.contains(u"/nowhere/settings"_s));
    }
};

ZARVO_TEST(WindowManagerTest)
#include "tst_windowmanager.moc"
