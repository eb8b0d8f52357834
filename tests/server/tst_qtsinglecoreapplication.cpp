// SPDX-License-Identifier: MIT
#include "tests/helpers/files.h"
#include "tests/helpers/otherprocess.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestQtSingleCoreApplication : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void onlyTheFirstProcessHoldsTheId_data();
    void onlyTheFirstProcessHoldsTheId();
    void idsDoNotDisturbEachOther_data();
    void idsDoNotDisturbEachOther();
    void idIsFreeAfterTheEndOfItsProcess_data();
    void idIsFreeAfterTheEndOfItsProcess();
    void childProcessDoesNotInheritTheLock();
    void destroyedApplicationObjectReleasesTheId();
    void lockFileIsPrivate();
    void filesOfOthersAreSkipped_data();
    void filesOfOthersAreSkipped();
    void holderOfALaterNameIsFound();
    void usersDoNotDisturbEachOther();

private:
    [[nodiscard]] std::unique_ptr<OtherProcess> start(const QString &id, const QString &mode = u"single"_s) const;
    /** The answer that a new process gets for this id. */
    [[nodiscard]] QByteArray ask(const QString &id) const;
    /** The path of the only lock file. */
    [[nodiscard]] QString lockFile() const;

    std::unique_ptr<QTemporaryDir> dir; ///< the temporary directory of all processes
};

namespace {

const QString kId = u"zarvo_test-anna"_s;

/** Whether the process exists and runs this program. A zombie has no command line. */
bool runs(int pid, const QByteArray &program)
{
    return contentOf(u"/proc/%1/cmdline"_s.arg(pid)).startsWith(program);
}

/** Holds a lock on a file, if the file exists, until it is destroyed. */
class FileLock final
{
public:
    explicit FileLock(const QString &path)
        : descriptor(::open(QFile::encodeName(path).constData(), O_RDWR | O_CLOEXEC))
    {
        if (descriptor != -1 && ::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
            qFatal("Failed to lock %s", qPrintable(path));
        }
    }
    ~FileLock()
    {
        if (descriptor != -1) {
            ::close(descriptor);
        }
    }
    Q_DISABLE_COPY_MOVE(FileLock)

private:
    const int descriptor;
};

} // namespace

void TestQtSingleCoreApplication::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
}

void TestQtSingleCoreApplication::cleanup()
{
    dir.reset();
}

std::unique_ptr<OtherProcess> TestQtSingleCoreApplication::start(const QString &id, const QString &mode) const
{
    return std::make_unique<OtherProcess>(QStringList{mode, id}, dir->path());
}

QByteArray TestQtSingleCoreApplication::ask(const QString &id) const
{
    return start(id)->nextLine();
}

QString TestQtSingleCoreApplication::lockFile() const
{
    const QStringList names = QDir(dir->path()).entryList(QDir::Files | QDir::Hidden | QDir::System);
    return names.size() == 1 ? dir->filePath(names.first()) : QString();
}

void TestQtSingleCoreApplication::onlyTheFirstProcessHoldsTheId_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("usual") << kId;
    QTest::newRow("without a user") << u"zarvo_server-"_s;
    QTest::newRow("empty") << u""_s;
    QTest::newRow("path") << u"../../x/y"_s;
    QTest::newRow("longer than a file name") << QString(5000, u'x');
    QTest::newRow("blanks and line feeds") << u"a b\nc"_s;
}

void TestQtSingleCoreApplication::onlyTheFirstProcessHoldsTheId()
{
    QFETCH(const QString, id);
    const auto first = start(id);
    QCOMPARE(first->nextLine(), "free"_ba);
    QCOMPARE(first->nextLine(), "free"_ba); // the process does not find its own lock
    const auto second = start(id);
    QCOMPARE(second->nextLine(), "taken"_ba);
    QCOMPARE(second->nextLine(), "taken"_ba);
    QCOMPARE(ask(id), "taken"_ba);
    QVERIFY(second->finish()); // the first one keeps its lock
    QCOMPARE(ask(id), "taken"_ba);
}

void TestQtSingleCoreApplication::idsDoNotDisturbEachOther_data()
{
    QTest::addColumn<QString>("other");
    QTest::newRow("another user") << u"zarvo_test-bert"_s;
    QTest::newRow("longer") << QString(kId + u'x');
    QTest::newRow("shorter") << kId.chopped(1);
    QTest::newRow("other case") << kId.toUpper();
    QTest::newRow("empty") << u""_s;
}

void TestQtSingleCoreApplication::idsDoNotDisturbEachOther()
{
    QFETCH(const QString, other);
    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    const auto second = start(other);
    QCOMPARE(second->nextLine(), "free"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
    QCOMPARE(ask(other), "taken"_ba);
}

void TestQtSingleCoreApplication::idIsFreeAfterTheEndOfItsProcess_data()
{
    QTest::addColumn<bool>("killed");
    QTest::newRow("alone") << false;
    QTest::newRow("by SIGKILL") << true;
}

void TestQtSingleCoreApplication::idIsFreeAfterTheEndOfItsProcess()
{
    QFETCH(const bool, killed);
    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
    QVERIFY(killed ? first->kill() : first->finish());
    const auto second = start(kId);
    QCOMPARE(second->nextLine(), "free"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
}

void TestQtSingleCoreApplication::childProcessDoesNotInheritTheLock()
{
    const auto first = start(kId, u"single-parent"_s);
    QCOMPARE(first->nextLine(), "free"_ba);
    QCOMPARE(first->nextLine(), "free"_ba);
    const int child = first->nextLine().toInt();
    QVERIFY(child > 0);
    QTRY_VERIFY_WITH_TIMEOUT(runs(child, "sleep"), 30000);
    QVERIFY(first->kill());
    const QByteArray answer = ask(kId);
    const bool childLives = runs(child, "sleep");
    ::kill(child, SIGKILL);
    QCOMPARE(answer, "free"_ba);
    QVERIFY(childLives);
}

void TestQtSingleCoreApplication::destroyedApplicationObjectReleasesTheId()
{
    const auto process = start(kId, u"single-twice"_s);
    QCOMPARE(process->nextLine(), "free"_ba);
    QCOMPARE(process->nextLine(), "free"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
}

void TestQtSingleCoreApplication::lockFileIsPrivate()
{
    const mode_t previous = ::umask(0);
    const QByteArray answer = ask(kId);
    ::umask(previous);
    QCOMPARE(answer, "free"_ba);
    QVERIFY(!lockFile().isEmpty());
    QCOMPARE(modeOf(lockFile()), 0600);
}

void TestQtSingleCoreApplication::filesOfOthersAreSkipped_data()
{
    QTest::addColumn<QString>("obstacle");
    QTest::newRow("symbolic link to a file") << u"link"_s;
    QTest::newRow("symbolic link to nothing") << u"dangling"_s;
    QTest::newRow("second name of a file") << u"hard link"_s;
    QTest::newRow("named pipe") << u"pipe"_s;
    QTest::newRow("directory") << u"directory"_s;
    if (::geteuid() == 0) { // only root can create a file of another user
        QTest::newRow("file of another user") << u"foreign"_s;
    }
}

void TestQtSingleCoreApplication::filesOfOthersAreSkipped()
{
    QFETCH(const QString, obstacle);
    QCOMPARE(ask(kId), "free"_ba);
    const QString path = lockFile();
    QVERIFY(!path.isEmpty());
    QVERIFY(QFile::remove(path));
    const QByteArray encoded = QFile::encodeName(path);

    const QTemporaryDir elsewhere;
    const QString target = elsewhere.filePath(u"target"_s);
    if (obstacle != u"dangling"_s) {
        putFile(target, "not to be touched");
    }
    if (obstacle == u"link"_s || obstacle == u"dangling"_s) {
        QVERIFY(QFile::link(target, path));
    } else if (obstacle == u"hard link"_s) {
        QCOMPARE(::link(QFile::encodeName(target).constData(), encoded.constData()), 0);
    } else if (obstacle == u"pipe"_s) {
        QCOMPARE(::mkfifo(encoded.constData(), 0600), 0);
    } else if (obstacle == u"directory"_s) {
        QVERIFY(QDir().mkdir(path));
    } else {
        putFile(path, "not ours");
        QCOMPARE(::chown(encoded.constData(), 65534, 65534), 0);
    }

    // Its owner holds a lock on it to prevent us from running.
    const FileLock lock(obstacle == u"foreign"_s ? path : target);

    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
    QCOMPARE(QFile::exists(target), obstacle != u"dangling"_s);
    QVERIFY(obstacle == u"dangling"_s || contentOf(target) == "not to be touched");
}

void TestQtSingleCoreApplication::holderOfALaterNameIsFound()
{
    QCOMPARE(ask(kId), "free"_ba);
    const QString path = lockFile();
    QVERIFY(!path.isEmpty());
    QVERIFY(QFile::remove(path));
    QVERIFY(QDir().mkdir(path));
    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    QVERIFY(QDir().rmdir(path));
    QCOMPARE(ask(kId), "taken"_ba);
}

void TestQtSingleCoreApplication::usersDoNotDisturbEachOther()
{
    if (::geteuid() != 0) {
        QSKIP("Only root can start a process of another user");
    }
    QCOMPARE(::chmod(QFile::encodeName(dir->path()).constData(), 01777), 0);
    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    const QStringList arguments = {u"single-user"_s, kId, u"65534"_s};
    OtherProcess second(arguments, dir->path());
    QCOMPARE(second.nextLine(), "free"_ba);
    OtherProcess third(arguments, dir->path());
    QCOMPARE(third.nextLine(), "taken"_ba);
    QCOMPARE(ask(kId), "taken"_ba);
}

ZARVO_TEST(TestQtSingleCoreApplication)

#include "tst_qtsinglecoreapplication.moc"
