// SPDX-License-Identifier: MIT
#include "server/startupfailure.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QLocale>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
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

/** Redirects standard error into a file until it is destroyed. */
class StandardErrorFile final
{
public:
    explicit StandardErrorFile(const QString &path)
        : previous(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        const int file = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ::dup2(file, STDERR_FILENO);
        ::close(file);
    }
    ~StandardErrorFile()
    {
        ::dup2(previous, STDERR_FILENO);
        ::close(previous);
    }
    Q_DISABLE_COPY_MOVE(StandardErrorFile)

private:
    const int previous;
};

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
        const StandardErrorFile file(path);
        code = reportStartupFailure(cause);
    } while (time != timeText());
    QCOMPARE(code, 1);
    QCOMPARE(QString::fromUtf8(contentOf(path)), QString(time + u": Critical: "_s + cause + u'\n'));
}

ZARVO_TEST(TestStartupFailure)

#include "tst_startupfailure.moc"
