// SPDX-License-Identifier: MIT
#include "agent/display/screenwatcher.h"
#include "tests/testmain.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

/** The rest needs a real X server, so the tests of the built agent cover it. */
class ScreenWatcherTest final : public QObject
{
    Q_OBJECT

private slots:
    void missingXServerIsReported()
    {
        ScreenWatcher watcher;
        QSignalSpy failed(&watcher, &ScreenWatcher::failed);
        QSignalSpy started(&watcher, &ScreenWatcher::started);
        watcher.start(65000, QByteArray(16, 'c'));
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(failed.first().first().toString().contains(u"display 65000"_s));
        QCOMPARE(started.count(), 0);
    }
};

ZARVO_TEST(ScreenWatcherTest)
#include "tst_screenwatcher.moc"
