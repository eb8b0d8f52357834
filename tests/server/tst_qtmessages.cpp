// SPDX-License-Identifier: MIT
#include "base/logging.h"
#include "server/qtmessages.h"
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTest>
#include <QThread>

#include <memory>
#include <optional>

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

ZARVO_TEST(TestQtMessages)

#include "tst_qtmessages.moc"
