// SPDX-License-Identifier: MIT
#include "base/lockedfile.h"
#include "tests/helpers/files.h"
#include "tests/helpers/otherprocess.h"
#include "tests/testmain.h"

#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>

using namespace Qt::StringLiterals;

class TestLockedFile : public QObject
{
    Q_OBJECT

private slots:
    void lockWaitsForTheOtherProcess();
    void otherProcessWaitsForTheLock_data();
    void otherProcessWaitsForTheLock();
    void closedFileIsNotLocked();
};

namespace {

/** How long to wait to be sure that something does not happen. No success depends on it. */
constexpr int kWrongEventMs = 300;

} // namespace

void TestLockedFile::lockWaitsForTheOtherProcess()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    OtherProcess other({u"lock"_s, path});
    QCOMPARE(other.nextLine(), "locked"_ba);

    const std::unique_ptr<QThread> thread(QThread::create([path] {
        LockedFile file(path);
        if (file.open(QIODevice::WriteOnly | QIODevice::Append)) {
            file.lockForWriting();
            file.write("ours\n");
        }
    }));
    thread->start();
    QVERIFY(!thread->wait(kWrongEventMs));
    other.send("theirs\n");
    QVERIFY(other.finish());
    QVERIFY(thread->wait(30000));
    QCOMPARE(contentOf(path), "theirs\nours\n"_ba);
}

void TestLockedFile::otherProcessWaitsForTheLock_data()
{
    QTest::addColumn<bool>("byClosing");
    QTest::newRow("until it is given back") << false;
    QTest::newRow("until the file is closed") << true;
}

void TestLockedFile::otherProcessWaitsForTheLock()
{
    QFETCH(const bool, byClosing);
    const QTemporaryDir dir;
    LockedFile file(dir.filePath(u"file"_s));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Append));
    file.lockForWriting();

    OtherProcess other({u"lock"_s, file.fileName()});
    other.send("theirs\n");
    QVERIFY(!QTest::qWaitFor([&] { return file.size() > 0; }, kWrongEventMs));
    file.write("ours\n");
    file.flush();
    if (byClosing) {
        file.close();
    } else {
        file.unlock();
    }
    QCOMPARE(other.nextLine(), "locked"_ba);
    QVERIFY(other.finish());
    QCOMPARE(contentOf(file.fileName()), "ours\ntheirs\n"_ba);
}

void TestLockedFile::closedFileIsNotLocked()
{
    const QTemporaryDir dir;
    LockedFile file(dir.filePath(u"file"_s));
    file.lockForWriting();
    file.unlock();
    QVERIFY(!QFile::exists(file.fileName()));
    OtherProcess other({u"lock"_s, file.fileName()});
    QCOMPARE(other.nextLine(), "locked"_ba);
}

ZARVO_TEST(TestLockedFile)

#include "tst_lockedfile.moc"
