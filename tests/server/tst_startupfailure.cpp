// SPDX-License-Identifier: MIT
#include "server/startupfailure.h"
#include "tests/helpers/files.h"
#include "tests/helpers/redirection.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QLocale>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestStartupFailure : public QObject
{
    Q_OBJECT

private slots:
    void causeIsOneCriticalLineOnStandardError_data();
    void causeIsOneCriticalLineOnStandardError();
};

namespace {

QString timeText()
{
    return QLocale::c().toString(QDateTime::currentDateTime(), u"ddd d hh:mm:ss"_s);
}

} // namespace

void TestStartupFailure::causeIsOneCriticalLineOnStandardError_data()
{
    QTest::addColumn<QString>("cause");
    QTest::newRow("plain") << u"Invalid broadcast address \"nowhere\""_s;
    QTest::newRow("empty") << u""_s;
    QTest::newRow("place markers") << u"%1 %2 %3"_s;
    QTest::newRow("long") << QString(5000, u'x');
}

void TestStartupFailure::causeIsOneCriticalLineOnStandardError()
{
    QFETCH(const QString, cause);
    const QTemporaryDir dir;
    QString time;
    int number = 0;
    QString path;
    int code = -1;
    do { // again if the second has changed in between
        time = timeText();
        path = dir.filePath(QString::number(number++));
        const Redirection file(STDERR_FILENO, path);
        code = reportStartupFailure(cause);
    } while (time != timeText());
    QCOMPARE(code, 1);
    QCOMPARE(QString::fromUtf8(contentOf(path)), QString(time + u": Critical: "_s + cause + u'\n'));
}

ZARVO_TEST(TestStartupFailure)

#include "tst_startupfailure.moc"
