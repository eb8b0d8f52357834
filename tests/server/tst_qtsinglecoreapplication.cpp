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
    void usersDoNotDisturbEachOther();
    void temporaryDirectoryDoesNotMatter();

private:
    [[nodiscard]] std::unique_ptr<OtherProcess> start(const QString &id, const QString &mode = u"single"_s) const;
    /** The answer that a new process gets for this id. */
    [[nodiscard]] QByteArray ask(const QString &id) const;

    std::unique_ptr<QTemporaryDir> dir; ///< the temporary directory of all processes
};

namespace {

/** The id of this run: all runs share the locks in /tmp. */
const QString kId = u"zarvo_test-%1-anna"_s.arg(::getpid());

/** Whether the process exists and runs this program. A zombie has no command line. */
bool runs(int pid, const QByteArray &program)
{
    return contentOf(u"/proc/%1/cmdline"_s.arg(pid)).startsWith(program);
}

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

void TestQtSingleCoreApplication::onlyTheFirstProcessHoldsTheId_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("usual") << kId;
    QTest::newRow("path") << QString(u"../../x/y"_s + kId);
    QTest::newRow("longer than a file name") << QString(QString(5000, u'x') + kId);
    QTest::newRow("blanks and line feeds") << QString(u"a b\nc"_s + kId);
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
    QTest::newRow("another user") << QString(kId.chopped(4) + u"bert"_s);
    QTest::newRow("longer") << QString(kId + u'x');
    QTest::newRow("shorter") << kId.chopped(1);
    QTest::newRow("other case") << kId.toUpper();
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

void TestQtSingleCoreApplication::temporaryDirectoryDoesNotMatter()
{
    const auto first = start(kId);
    QCOMPARE(first->nextLine(), "free"_ba);
    const QTemporaryDir elsewhere;
    OtherProcess second(QStringList{u"single"_s, kId}, elsewhere.path());
    QCOMPARE(second.nextLine(), "taken"_ba);
}

ZARVO_TEST(TestQtSingleCoreApplication)

#include "tst_qtsinglecoreapplication.moc"
