// SPDX-License-Identifier: MIT
#include "base/instancerecord.h"
#include "server/instancelock.h"
#include "tests/helpers/files.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestInstanceLock : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void onlyOneLockIsHeld_data();
    void onlyOneLockIsHeld();
    void lockInEitherFolderCounts();
    void missingFolderIsLeftOut();
    void lockOfARemovedFileIsHeldInTheOtherFolder();
    void refreshedFileLooksNew();
    void fileIsPrivateAndRemovedAtTheEnd();
    void fileOfAnotherLockIsNotRemoved();
    void staleFilesAreReused();
    void staleFilesOfOtherNamesAreRemoved();
    void takenNameIsReplaced_data();
    void takenNameIsReplaced();
    void holderOfAnyNameIsFound();
    void tenThousandFilesOfAStrangerAreSkipped();
    void oneOfManyThreadsGetsTheLock_data();
    void oneOfManyThreadsGetsTheLock();
    void filesNameTheProcessWhileItHoldsThem();
    void removedFilesAreMadeAgain();
    void movedFileIsMadeAgain();
    void restoreLeavesTheFileOfAnotherProcess();
    void hardLinkDoesNotLiftTheLock();
    void hardLinkToAnotherFileIsNoLock();

private:
    [[nodiscard]] QList<QByteArray> both() const { return {folder(u"first"_s), folder(u"second"_s)}; }
    [[nodiscard]] QByteArray folder(const QString &name) const { return QFile::encodeName(dir->filePath(name)); }
    [[nodiscard]] QStringList filesIn(const QString &name) const
    {
        return QDir(dir->filePath(name)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    /** The path of the usual lock file. */
    [[nodiscard]] QByteArray usualPath(const QString &name) const
    {
        InstanceLock lock(kId, {folder(name)});
        return lock.take() && filesIn(name).size() == 1 ? folder(name) + '/' + QFile::encodeName(filesIn(name).first())
                                                        : QByteArray();
    }

    static inline const QString kId = u"zarvo_test-anna"_s;

    std::unique_ptr<QTemporaryDir> dir;
};

namespace {

using Obstacle = void (*)(const QByteArray &path);

void bindSocket(const QByteArray &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    ::bind(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), reinterpret_cast<const sockaddr *>(&address),
           sizeof address);
}

/** A file that its owner has locked, to keep others from running. */
void lockFile(const QByteArray &path)
{
    ::flock(::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0666), LOCK_EX);
}

} // namespace

void TestInstanceLock::init()
{
    dir = std::make_unique<QTemporaryDir>(u"/tmp/zarvo-lock-XXXXXX"_s);
    QCOMPARE(::chmod(QFile::encodeName(dir->path()).constData(), 0755), 0);
    for (const QString &name : {u"first"_s, u"second"_s}) {
        QVERIFY(QDir(dir->path()).mkdir(name));
        QCOMPARE(::chmod(folder(name).constData(), 01777), 0);
    }
}

void TestInstanceLock::cleanup()
{
    dir.reset();
}

void TestInstanceLock::onlyOneLockIsHeld_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("usual") << kId;
    QTest::newRow("without a user") << u"zarvo_server-"_s;
    QTest::newRow("empty") << u""_s;
    QTest::newRow("path") << u"../../x/y"_s;
}

void TestInstanceLock::onlyOneLockIsHeld()
{
    QFETCH(const QString, id);
    auto first = std::make_unique<InstanceLock>(id, both());
    InstanceLock second(id, both());
    InstanceLock other(id + u'x', both());
    QVERIFY(first->take());
    QVERIFY(first->take()); // it does not find its own lock
    QVERIFY(!second.take());
    QVERIFY(other.take());
    first.reset();
    QVERIFY(second.take());
}

void TestInstanceLock::lockInEitherFolderCounts()
{
    for (const QString &name : {u"first"_s, u"second"_s}) {
        InstanceLock holder(kId, {folder(name)});
        QVERIFY(holder.take());
        QVERIFY(!InstanceLock(kId, both()).take());
        QVERIFY(InstanceLock(kId, {folder(name == u"first"_s ? u"second"_s : u"first"_s)}).take());
    }
}

void TestInstanceLock::missingFolderIsLeftOut()
{
    InstanceLock holder(kId, {folder(u"missing"_s), folder(u"second"_s)});
    QVERIFY(holder.take());
    QVERIFY(!InstanceLock(kId, both()).take());
    QVERIFY(InstanceLock(kId, {folder(u"missing"_s)}).take());
    QVERIFY(!QFile::exists(dir->filePath(u"missing"_s)));
}

void TestInstanceLock::lockOfARemovedFileIsHeldInTheOtherFolder()
{
    InstanceLock holder(kId, both());
    QVERIFY(holder.take());
    QVERIFY(QFile::remove(dir->filePath(u"second/"_s + filesIn(u"second"_s).first())));
    QVERIFY(!InstanceLock(kId, both()).take());
    QCOMPARE(filesIn(u"second"_s), QStringList()); // the refused one leaves nothing
}

void TestInstanceLock::refreshedFileLooksNew()
{
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    for (const QString &name : {u"first"_s, u"second"_s}) {
        const QByteArray path = folder(name) + '/' + QFile::encodeName(filesIn(name).first());
        const timespec old[2] = {{1000, 0}, {1000, 0}};
        QCOMPARE(::utimensat(AT_FDCWD, path.constData(), old, 0), 0);
        lock.refresh();
        struct stat status = {};
        QCOMPARE(::stat(path.constData(), &status), 0);
        QVERIFY(status.st_mtim.tv_sec > 1000000000);
        QVERIFY(status.st_atim.tv_sec > 1000000000);
    }
}

void TestInstanceLock::fileIsPrivateAndRemovedAtTheEnd()
{
    const mode_t previous = ::umask(0);
    {
        InstanceLock lock(kId, both());
        const bool isTaken = lock.take();
        ::umask(previous);
        QVERIFY(isTaken);
        QCOMPARE(filesIn(u"first"_s).size(), 1);
        QCOMPARE(modeOf(dir->filePath(u"first/"_s + filesIn(u"first"_s).first())), 0600);
        QVERIFY(!InstanceLock(kId, both()).take());
    }
    QCOMPARE(filesIn(u"first"_s), QStringList());
    QCOMPARE(filesIn(u"second"_s), QStringList());
}

void TestInstanceLock::fileOfAnotherLockIsNotRemoved()
{
    const QList<QByteArray> one = {folder(u"first"_s)};
    auto cleaned = std::make_unique<InstanceLock>(kId, one);
    QVERIFY(cleaned->take());
    QVERIFY(QFile::remove(dir->filePath(u"first/"_s + filesIn(u"first"_s).first())));
    InstanceLock next(kId, one); // has the same name in this folder
    QVERIFY(next.take());
    cleaned.reset();
    QCOMPARE(filesIn(u"first"_s).size(), 1);
    QVERIFY(!InstanceLock(kId, one).take());
}

void TestInstanceLock::staleFilesAreReused()
{
    const QByteArray path = usualPath(u"first"_s);
    putFile(QFile::decodeName(path), "");
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    QCOMPARE(filesIn(u"first"_s).size(), 1);
}

void TestInstanceLock::staleFilesOfOtherNamesAreRemoved()
{
    const QByteArray path = usualPath(u"first"_s);
    putFile(QFile::decodeName(path) + u".old"_s, "");
    putFile(dir->filePath(u"first/zarvo-of-somebody-else"_s), "");
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    QCOMPARE(filesIn(u"first"_s),
             (QStringList{QFileInfo(QFile::decodeName(path)).fileName(), u"zarvo-of-somebody-else"_s}));
}

void TestInstanceLock::takenNameIsReplaced_data()
{
    QTest::addColumn<Obstacle>("obstacle");
    const auto add = [](const char *name, Obstacle obstacle) { QTest::newRow(name) << obstacle; };
    add("file that is locked", lockFile);
    add("symlink to nothing", [](const QByteArray &path) { (void) ::symlink("/nowhere/at/all", path.constData()); });
    add("symlink to a file", [](const QByteArray &path) { (void) ::symlink("/etc/passwd", path.constData()); });
    add("pipe", [](const QByteArray &path) { ::mkfifo(path.constData(), 0666); });
    add("folder", [](const QByteArray &path) { ::mkdir(path.constData(), 0777); });
    add("socket", bindSocket);
}

void TestInstanceLock::takenNameIsReplaced()
{
    if (!canPlayStranger()) {
        QSKIP("Only root can play another user");
    }
    QFETCH(const Obstacle, obstacle);
    const QByteArray first = usualPath(u"first"_s);
    const QByteArray second = usualPath(u"second"_s);
    const Stranger stranger([&] {
        ::umask(0);
        obstacle(first);
        obstacle(second);
    });
    QVERIFY(stranger.hasActed());
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    QCOMPARE(filesIn(u"first"_s).size(), 2);
    QVERIFY(!InstanceLock(kId, both()).take());
    QVERIFY(!InstanceLock(kId, {folder(u"second"_s)}).take());
}

void TestInstanceLock::holderOfAnyNameIsFound()
{
    const QByteArray path = usualPath(u"first"_s);
    QCOMPARE(::mkdir(path.constData(), 0700), 0);
    InstanceLock holder(kId, both());
    QVERIFY(holder.take());
    QCOMPARE(::rmdir(path.constData()), 0);
    QVERIFY(!InstanceLock(kId, {folder(u"first"_s)}).take());
}

void TestInstanceLock::tenThousandFilesOfAStrangerAreSkipped()
{
    if (!canPlayStranger()) {
        QSKIP("Only root can play another user");
    }
    const QByteArray path = usualPath(u"first"_s);
    const QByteArray stem = path.first(path.lastIndexOf('-') + 1);
    const Stranger stranger([&stem] {
        char name[512];
        for (int number = 0; number < 10000; ++number) {
            std::snprintf(name, sizeof name, "%s%d.lock", stem.constData(), number);
            ::close(::open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        }
    });
    QVERIFY(stranger.hasActed());
    QCOMPARE(filesIn(u"first"_s).size(), 10000);
    QElapsedTimer timer;
    timer.start();
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    QVERIFY(!InstanceLock(kId, both()).take());
    QVERIFY2(timer.elapsed() < 10000, qPrintable(QString::number(timer.elapsed())));
}

void TestInstanceLock::oneOfManyThreadsGetsTheLock_data()
{
    QTest::addColumn<bool>("isNameTaken");
    QTest::newRow("usual name") << false;
    QTest::newRow("random names") << true;
}

void TestInstanceLock::oneOfManyThreadsGetsTheLock()
{
    QFETCH(const bool, isNameTaken);
    if (isNameTaken) {
        for (const QString &name : {u"first"_s, u"second"_s}) {
            QCOMPARE(::mkdir(usualPath(name).constData(), 0700), 0);
        }
    }
    for (int round = 0; round < 15; ++round) {
        std::atomic<int> taken = 0;
        std::atomic<int> waiting = 4;
        std::vector<std::unique_ptr<InstanceLock>> locks;
        std::vector<std::thread> threads;
        for (int count = 0; count < 4; ++count) {
            locks.push_back(std::make_unique<InstanceLock>(kId, both()));
            threads.emplace_back([&taken, &waiting, lock = locks.back().get()] {
                for (--waiting; waiting > 0;) {
                    std::this_thread::yield();
                }
                taken += lock->take() ? 1 : 0;
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        QCOMPARE(taken.load(), 1);
    }
}

void TestInstanceLock::filesNameTheProcessWhileItHoldsThem()
{
    const InstanceFiles files(kId, both());
    const QByteArray path = usualPath(u"first"_s);
    putFile(QFile::decodeName(path), textOf({4711, {"HOME=" + QByteArray(10000, 'x')}})); // of a killed process
    {
        InstanceLock lock(kId, both());
        QVERIFY(lock.take());
        QVERIFY(contentOf(QFile::decodeName(path)).startsWith(QByteArray::number(::getpid()) + '\n'));
        QCOMPARE(lockHolders(files), QList<InstanceRecord>{InstanceRecord::ofThisProcess()});
        QVERIFY(!InstanceLock(kId, both()).take());
        QCOMPARE(lockHolders(files), QList<InstanceRecord>{InstanceRecord::ofThisProcess()});
    }
    QCOMPARE(lockHolders(files), QList<InstanceRecord>());
}

void TestInstanceLock::removedFilesAreMadeAgain()
{
    InstanceLock lock(kId, both());
    QVERIFY(lock.take());
    for (const QString &name : {u"first"_s, u"second"_s}) {
        QVERIFY(QFile::remove(dir->filePath(name + u'/' + filesIn(name).first())));
    }
    lock.restore();
    for (const QString &name : {u"first"_s, u"second"_s}) {
        QCOMPARE(filesIn(name).size(), 1);
        QVERIFY(!InstanceLock(kId, {folder(name)}).take());
        QCOMPARE(lockHolders(InstanceFiles(kId, {folder(name)})),
                 QList<InstanceRecord>{InstanceRecord::ofThisProcess()});
    }
}

void TestInstanceLock::movedFileIsMadeAgain()
{
    const QList<QByteArray> one = {folder(u"first"_s)};
    {
        InstanceLock lock(kId, one);
        QVERIFY(lock.take());
        QVERIFY(QFile::rename(dir->filePath(u"first/"_s + filesIn(u"first"_s).first()), dir->filePath(u"moved"_s)));
        lock.restore();
        QVERIFY(!InstanceLock(kId, one).take());
        lock.restore(); // has nothing to do
        QCOMPARE(filesIn(u"first"_s).size(), 1);
    }
    QCOMPARE(filesIn(u"first"_s), QStringList());
}

void TestInstanceLock::restoreLeavesTheFileOfAnotherProcess()
{
    const QList<QByteArray> one = {folder(u"first"_s)};
    InstanceLock lock(kId, one);
    QVERIFY(lock.take());
    QVERIFY(QFile::remove(dir->filePath(u"first/"_s + filesIn(u"first"_s).first())));
    {
        InstanceLock other(kId, one);
        QVERIFY(other.take());
        lock.restore();
        QCOMPARE(filesIn(u"first"_s).size(), 1);
    }
    lock.restore();
    QVERIFY(!InstanceLock(kId, one).take());
}

void TestInstanceLock::hardLinkDoesNotLiftTheLock()
{
    const QList<QByteArray> one = {folder(u"first"_s)};
    const QByteArray path = usualPath(u"first"_s);
    {
        InstanceLock lock(kId, one);
        QVERIFY(lock.take());
        QCOMPARE(::link(path.constData(), (path + ".link").constData()), 0);
        QVERIFY(!InstanceLock(kId, one).take());
        QCOMPARE(lockHolders(InstanceFiles(kId, one)), QList<InstanceRecord>{InstanceRecord::ofThisProcess()});
    }
    InstanceLock next(kId, one);
    QVERIFY(next.take());
    QCOMPARE(filesIn(u"first"_s).size(), 1);
}

void TestInstanceLock::hardLinkToAnotherFileIsNoLock()
{
    const QList<QByteArray> one = {folder(u"first"_s)};
    const QByteArray path = usualPath(u"first"_s);
    const QString document = dir->filePath(u"document"_s);
    putFile(document, "text");
    lockFile(QFile::encodeName(document)); // by another program of the user
    QCOMPARE(::link(QFile::encodeName(document).constData(), path.constData()), 0);
    InstanceLock lock(kId, one);
    QVERIFY(lock.take());
    QCOMPARE(contentOf(document), "text");
    QVERIFY(!InstanceLock(kId, one).take());
}

ZARVO_TEST(TestInstanceLock)

#include "tst_instancelock.moc"
