// SPDX-License-Identifier: MIT
#include "contract/loglevel.h"
#include "tests/testmain.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestLogLevel : public QObject
{
    Q_OBJECT

private slots:
    void everyLevelIsFoundByItsName()
    {
        for (int level = LogCritical; level <= LogDebug3; ++level) {
            QVERIFY(!logLevelName(level).isEmpty());
            QCOMPARE(logLevelFromName(logLevelName(level)), level);
        }
        QCOMPARE(logLevelName(LogCritical), u"Critical"_s);
        QCOMPARE(logLevelName(LogDebug3), u"Debug3"_s);
    }

    void otherNumbersHaveNoName()
    {
        QCOMPARE(logLevelName(LogCritical - 1), QString());
        QCOMPARE(logLevelName(LogDebug3 + 1), QString());
    }

    void otherNamesAreNoLevel()
    {
        for (const QString &name : {QString(), u"info"_s, u"Info "_s, u"Debug"_s, u"2"_s}) {
            QVERIFY2(!logLevelFromName(name), qPrintable(name));
        }
    }
};

ZARVO_TEST(TestLogLevel)
#include "tst_loglevel.moc"
