// SPDX-License-Identifier: MIT
#include "base/instancerecord.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestInstanceRecord : public QObject
{
    Q_OBJECT

private slots:
    void init() { dir = std::make_unique<QTemporaryDir>(); }

    void textIsParsedBack()
    {
        for (const QList<QByteArray> &environment :
             {QList<QByteArray>(), {"HOME=/home/anna"}, {"HOME=/a\nb", "PATH="}, {"HOME=\xff", "PATH=/a:/b=c"}}) {
            const InstanceRecord record = {4711, environment};
            QVERIFY(textOf(record).startsWith("4711\n"));
            QCOMPARE(parseInstanceRecord(textOf(record)).value_or(InstanceRecord()), record);
        }
    }

    void partOfATextIsNoRecord()
    {
        const QByteArray text = textOf({4711, {"HOME=/home/anna", "PATH=/bin"}});
        for (qsizetype length = 0; length < text.size(); ++length) {
            QVERIFY2(!parseInstanceRecord(text.first(length)), text.first(length).constData());
        }
    }

    void otherTextsAreNoRecord()
    {
        for (const QByteArray &text : {QByteArray("0\n\0", 3), QByteArray("-1\n\0", 4), QByteArray("x\n\0", 3),
                                       QByteArray("\n\0", 2), QByteArray("99999999999999999999\n\0", 22)}) {
            QVERIFY2(!parseInstanceRecord(text), text.constData());
        }
    }

    void variablesAreThoseOfTheStart()
    {
        const EnvironmentVariable home("HOME", "/home/of/it");
        const EnvironmentVariable path("PATH");
        const InstanceRecord record = InstanceRecord::ofThisProcess();
        QCOMPARE(record.pid, qint64(::getpid()));
        QCOMPARE(record.variable("HOME").value_or("?"), QByteArray("/home/of/it"));
        QVERIFY(!record.variable("PATH"));
        QVERIFY(!record.variable("HOM"));
    }

    void onlyHoldersOfALockAreListed()
    {
        const InstanceFiles files(u"zarvo_test"_s, {QFile::encodeName(dir->path())});
        const QByteArray stem = QFile::encodeName(dir->path()) + '/' + files.prefix();
        const InstanceRecord record = {4711, {"HOME=/"}};
        putFile(QFile::decodeName(stem + "0.lock"), textOf(record));
        QCOMPARE(lockHolders(files), QList<InstanceRecord>());
        const int descriptor = InstanceFiles::open(stem + "0.lock", 0);
        QCOMPARE(InstanceFiles::lock(descriptor, stem + "0.lock", LOCK_EX), InstanceFiles::Locking::Locked);
        QCOMPARE(lockHolders(files), QList<InstanceRecord>{record});
        QCOMPARE(lockHolders(InstanceFiles(u"zarvo_other"_s, files.folders())), QList<InstanceRecord>());
        QCOMPARE(::ftruncate(descriptor, 6), 0); // as it is while the holder writes it
        QCOMPARE(lockHolders(files), QList<InstanceRecord>());
        ::close(descriptor);
    }

    void fileOfAStrangerNamesNobody()
    {
        if (::geteuid() != 0) {
            QSKIP("only root can give files away");
        }
        const InstanceFiles files(u"zarvo_test"_s, {QFile::encodeName(dir->path())});
        const QByteArray path = QFile::encodeName(dir->path()) + '/' + files.prefix() + "0.lock";
        putFile(QFile::decodeName(path), textOf({4711, {}}));
        const int descriptor = ::open(path.constData(), O_RDWR | O_CLOEXEC);
        QCOMPARE(::flock(descriptor, LOCK_EX), 0);
        QCOMPARE(lockHolders(files).size(), 1);
        QCOMPARE(::chown(path.constData(), 65534, 65534), 0);
        QCOMPARE(lockHolders(files), QList<InstanceRecord>());
        ::close(descriptor);
    }

private:
    std::unique_ptr<QTemporaryDir> dir;
};

ZARVO_TEST(TestInstanceRecord)
#include "tst_instancerecord.moc"
