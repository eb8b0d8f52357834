// SPDX-License-Identifier: MIT
#include "base/logging.h"
#include "server/qtmessages.h"
#include "tests/helpers/files.h"
#include "tests/helpers/otherprocess.h"
#include "tests/helpers/redirection.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>
#include <optional>

#include <unistd.h>

using namespace Qt::StringLiterals;

class TestQtMessages : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void messageIsLoggedFromTheEventLoop();
    void messageOfAnotherThreadIsLoggedOnTheMainThread();
    void messageBeforeTheLoggerIsDropped();
    void messageAfterTheLoggerIsDropped();
    void messageThatWaitsWhileTheLoggerEndsIsDropped();
    void fatalMessageIsLogged();
    void fatalMessageWithoutALoggerGoesToStandardError();

private:
    QtMessageHandler previous = nullptr;
};

namespace {

QStringList lines;

/** As in the server, nobody uninstalls it before its end. */
class LineLogger final : public Logging
{
public:
    LineLogger() { setLevel(LogDebug3); }
    void write(int level, const QString &text) override
    {
        lines.append(levelName(level) + u": "_s + text);
        isOnMainThread = QThread::currentThread() == qApp->thread();
    }

    bool isOnMainThread = false;
};

/** What a process with this argument, which ends with a fatal message, wrote to its outputs. */
struct FatalOutputs
{
    explicit FatalOutputs(const QString &mode)
    {
        const QTemporaryDir dir;
        const QString errorPath = dir.filePath(u"error"_s);
        const Redirection redirection(STDERR_FILENO, errorPath);
        OtherProcess process({mode, u"of Qt"_s});
        output = process.nextLine();
        endedWell = process.finish();
        error = contentOf(errorPath);
    }

    QByteArray output; ///< the first line; null: nothing
    QByteArray error;
    bool endedWell = false;
};

} // namespace

void TestQtMessages::init()
{
    lines.clear();
    previous = qInstallMessageHandler(nullptr);
    logQtMessages();
}

void TestQtMessages::cleanup()
{
    qInstallMessageHandler(previous);
    Logging::setInstance(nullptr);
}

void TestQtMessages::messageIsLoggedFromTheEventLoop()
{
    LineLogger logger;
    Logging::setInstance(&logger);
    qWarning("of Qt");
    QCOMPARE(lines, QStringList());
    QCoreApplication::processEvents();
    QCOMPARE(lines, QStringList{u"Debug1: of Qt"_s});
}

void TestQtMessages::messageOfAnotherThreadIsLoggedOnTheMainThread()
{
    LineLogger logger;
    Logging::setInstance(&logger);
    const std::unique_ptr<QThread> thread(QThread::create([] { qWarning("of a thread"); }));
    thread->start();
    QVERIFY(thread->wait(60000));
    QCoreApplication::processEvents();
    QCOMPARE(lines, QStringList{u"Debug1: of a thread"_s});
    QVERIFY(logger.isOnMainThread);
}

void TestQtMessages::messageBeforeTheLoggerIsDropped()
{
    qWarning("too early");
    QCoreApplication::processEvents();
    QCOMPARE(lines, QStringList());
}

void TestQtMessages::messageAfterTheLoggerIsDropped()
{
    std::optional<LineLogger> logger(std::in_place);
    Logging::setInstance(&*logger);
    logger.reset();
    qWarning("too late");
    QCoreApplication::processEvents();
    QCOMPARE(lines, QStringList());
}

void TestQtMessages::messageThatWaitsWhileTheLoggerEndsIsDropped()
{
    std::optional<LineLogger> logger(std::in_place);
    Logging::setInstance(&*logger);
    qWarning("too late");
    logger.reset();
    QCoreApplication::processEvents();
    QCOMPARE(lines, QStringList());
}

void TestQtMessages::fatalMessageIsLogged()
{
    const FatalOutputs outputs(u"fatal-logged"_s);
    QCOMPARE(outputs.output, "Critical: of Qt"_ba);
    QCOMPARE(outputs.error, ""_ba);
    QVERIFY(!outputs.endedWell);
}

void TestQtMessages::fatalMessageWithoutALoggerGoesToStandardError()
{
    const FatalOutputs outputs(u"fatal"_s);
    QCOMPARE(outputs.output, QByteArray());
    QVERIFY2(outputs.error.endsWith(": Critical: of Qt\n"), outputs.error.constData());
    QCOMPARE(outputs.error.count('\n'), 1);
    QVERIFY(!outputs.endedWell);
}

ZARVO_TEST(TestQtMessages)

#include "tst_qtmessages.moc"
