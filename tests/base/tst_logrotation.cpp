// SPDX-License-Identifier: MIT
#include "base/filelogging.h"
#include "tests/helpers/files.h"
#include "tests/helpers/otherprocess.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

class TestLogRotation : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void fullFileBecomesTheOldOne();
    void oneOldFileIsKept();
    void fullFileThatIsFoundIsRotatedFirst();
    void bothFilesArePrivate();
    void failedRotationGoesOnInTheSameFile_data();
    void failedRotationGoesOnInTheSameFile();
    void symlinkIsNotRotated();
    void fullFileThatSomebodyElseMovedIsWrittenUntilTheReopen();
    void reopenAfterARotationKeepsTheNewFile();
    void idleLoggerFollowsTwoRotationsOfAnother();
    void noLineOfSeveralThreadsAndProcessesIsLost();

private:
    [[nodiscard]] QString file(const QString &name) const { return directory->filePath(name); }
    [[nodiscard]] QStringList names() const
    {
        return QDir(directory->path()).entryList(QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    }
    /** A logger of the file "log" that is full after two lines. */
    [[nodiscard]] std::unique_ptr<FileLogging> openLogger() const;

    std::unique_ptr<QTemporaryDir> directory;
    QString path;
    QString old;
};

namespace {

constexpr qint64 kMaxBytes = 50;

/** The texts of the lines of a log, without their times. */
QStringList textsOf(const QString &path)
{
    QStringList texts = QString::fromUtf8(contentOf(path)).split(u'\n');
    texts.removeLast();
    for (QString &text : texts) {
        text = text.section(u": Info: "_s, 1);
    }
    return texts;
}

} // namespace

void TestLogRotation::init()
{
    directory = std::make_unique<QTemporaryDir>();
    path = file(u"log"_s);
    old = file(u"log.old"_s);
}

void TestLogRotation::cleanup()
{
    directory.reset();
}

std::unique_ptr<FileLogging> TestLogRotation::openLogger() const
{
    auto logger = std::make_unique<FileLogging>();
    logger->setMaxBytes(kMaxBytes);
    QString error;
    return logger->open(path, &error) ? std::move(logger) : nullptr;
}

void TestLogRotation::fullFileBecomesTheOldOne()
{
    const auto logger = openLogger();
    logger->log(LogInfo, u"first line"_s);
    logger->log(LogInfo, u"second line"_s);
    QCOMPARE(names(), QStringList{u"log"_s});
    logger->log(LogInfo, u"third line"_s);
    QCOMPARE(textsOf(old), (QStringList{u"first line"_s, u"second line"_s}));
    QCOMPARE(textsOf(path), QStringList{u"third line"_s});
}

void TestLogRotation::oneOldFileIsKept()
{
    const auto logger = openLogger();
    for (int number = 1; number <= 7; ++number) {
        logger->log(LogInfo, u"line number %1"_s.arg(number));
    }
    QCOMPARE(names(), (QStringList{u"log"_s, u"log.old"_s}));
    QCOMPARE(textsOf(old), (QStringList{u"line number 5"_s, u"line number 6"_s}));
    QCOMPARE(textsOf(path), QStringList{u"line number 7"_s});
}

void TestLogRotation::fullFileThatIsFoundIsRotatedFirst()
{
    putFile(path, QByteArray(1000, 'x'));
    const auto logger = openLogger();
    QCOMPARE(names(), QStringList{u"log"_s});
    logger->log(LogInfo, u"line"_s);
    QCOMPARE(contentOf(old), QByteArray(1000, 'x'));
    QCOMPARE(textsOf(path), QStringList{u"line"_s});
}

void TestLogRotation::bothFilesArePrivate()
{
    putFile(path, QByteArray(1000, 'x'));
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther));
    const auto logger = openLogger();
    logger->log(LogInfo, u"line"_s);
    constexpr auto kOwn = QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser;
    QCOMPARE(QFile::permissions(path), kOwn);
    QCOMPARE(QFile::permissions(old), kOwn);
}

void TestLogRotation::failedRotationGoesOnInTheSameFile_data()
{
    QTest::addColumn<bool>("isOldADirectory");
    QTest::newRow("a directory has the name of the old file") << true;
    QTest::newRow("the directory is gone") << false;
}

void TestLogRotation::failedRotationGoesOnInTheSameFile()
{
    QFETCH(const bool, isOldADirectory);
    const auto logger = openLogger();
    QFile reader(path);
    QVERIFY(reader.open(QIODevice::ReadOnly));
    QTemporaryDir elsewhere;
    if (isOldADirectory) {
        QVERIFY(QDir().mkpath(old + u"/full"_s));
    } else {
        QVERIFY(QDir().rename(directory->path(), elsewhere.filePath(u"moved"_s)));
    }
    for (int number = 1; number <= 5; ++number) {
        logger->log(LogInfo, u"line number %1"_s.arg(number));
    }
    QCOMPARE(reader.readAll().count('\n'), 5);
}

void TestLogRotation::symlinkIsNotRotated()
{
    putFile(file(u"target"_s), "");
    QVERIFY(QFile::link(file(u"target"_s), path));
    const auto logger = openLogger();
    for (int number = 1; number <= 5; ++number) {
        logger->log(LogInfo, u"line number %1"_s.arg(number));
    }
    QCOMPARE(names(), (QStringList{u"log"_s, u"target"_s}));
    QCOMPARE(textsOf(file(u"target"_s)).size(), 5);
}

void TestLogRotation::fullFileThatSomebodyElseMovedIsWrittenUntilTheReopen()
{
    const auto logger = openLogger();
    logger->log(LogInfo, u"line number 1"_s);
    logger->log(LogInfo, u"line number 2"_s);
    QVERIFY(QFile::rename(path, file(u"log.1"_s)));
    logger->log(LogInfo, u"line number 3"_s);
    QCOMPARE(names(), QStringList{u"log.1"_s});
    QCOMPARE(textsOf(file(u"log.1"_s)).size(), 3);
    logger->reopen();
    logger->log(LogInfo, u"line number 4"_s);
    QCOMPARE(textsOf(path), QStringList{u"line number 4"_s});
}

void TestLogRotation::reopenAfterARotationKeepsTheNewFile()
{
    const auto logger = openLogger();
    for (int number = 1; number <= 3; ++number) {
        logger->log(LogInfo, u"line number %1"_s.arg(number));
    }
    logger->reopen();
    logger->log(LogInfo, u"line number 4"_s);
    QCOMPARE(textsOf(path), (QStringList{u"line number 3"_s, u"line number 4"_s}));
}

void TestLogRotation::idleLoggerFollowsTwoRotationsOfAnother()
{
    // Only one process of this program would notice its own locks, but none is held here between the lines.
    const auto busy = openLogger();
    const auto idle = openLogger();
    busy->log(LogInfo, u"line number 1"_s);
    busy->log(LogInfo, u"line number 2"_s);
    busy->log(LogInfo, u"line number 3"_s);
    idle->log(LogInfo, u"line number 4"_s);
    QCOMPARE(textsOf(path), (QStringList{u"line number 3"_s, u"line number 4"_s}));
    for (int number = 5; number <= 9; ++number) {
        busy->log(LogInfo, u"line number %1"_s.arg(number));
    }
    idle->log(LogInfo, u"line number 10"_s);
    QCOMPARE(textsOf(path), (QStringList{u"line number 9"_s, u"line number 10"_s}));
    QCOMPARE(textsOf(old), (QStringList{u"line number 7"_s, u"line number 8"_s}));
}

void TestLogRotation::noLineOfSeveralThreadsAndProcessesIsLost()
{
    // The file fills once, so the old file and the new one hold everything.
    constexpr int kWriters = 4;
    constexpr int kLines = 400;
    constexpr int kLineBytes = 40; // roughly
    constexpr qint64 kBytes = qint64{kWriters} * kLines * kLineBytes * 2 / 3;
    std::vector<std::unique_ptr<OtherProcess>> processes;
    for (int writer = 1; writer < kWriters; ++writer) {
        processes.push_back(std::make_unique<OtherProcess>(QStringList{
            u"log"_s, path, u"process %1"_s.arg(writer), QString::number(kLines), QString::number(kBytes)}));
        QCOMPARE(processes.back()->nextLine(), "open"_ba);
    }
    FileLogging logger;
    logger.setMaxBytes(kBytes);
    QString error;
    QVERIFY(logger.open(path, &error));
    const auto write = [&logger](const QString &name) {
        for (int number = 0; number < kLines / 2; ++number) {
            logger.log(LogInfo, u"%1 line %2"_s.arg(name).arg(number));
        }
    };
    for (const auto &process : processes) {
        process->send("go\n");
    }
    const std::unique_ptr<QThread> thread(QThread::create([&write] { write(u"thread"_s); }));
    thread->start();
    write(u"main thread"_s);
    QVERIFY(thread->wait(60000));
    for (const auto &process : processes) {
        QVERIFY(process->finish());
    }
    QCOMPARE(names(), (QStringList{u"log"_s, u"log.old"_s}));
    const QStringList lines = textsOf(old) + textsOf(path);
    QCOMPARE(lines.size(), kWriters * kLines);
    QCOMPARE(QSet<QString>(lines.begin(), lines.end()).size(), kWriters * kLines);
    QVERIFY(QFileInfo(old).size() < kBytes + 100);
}

ZARVO_TEST(TestLogRotation)

#include "tst_logrotation.moc"
