// SPDX-License-Identifier: MIT
#include "client/reach/privatedirectory.h"
#include "tests/helpers/files.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class TestPrivateDirectory : public QObject
{
    Q_OBJECT

private slots:
    void filesAreReachedEvenIfTheDirectoryIsRenamed()
    {
        const QTemporaryDir top;
        const QString path = top.filePath(QString(200, u'd'));
        QVERIFY(QDir().mkdir(path));
        putFile(path + u"/file"_s, "content");
        PrivateDirectory directory;
        QString error;
        QVERIFY2(directory.open(path, &error), qPrintable(error));
        QVERIFY(QDir().rename(path, top.filePath(u"other"_s)));
        QCOMPARE(contentOf(directory.pathOf(u"file"_s)), "content"_ba);
        QVERIFY(directory.pathOf(u"file"_s).size() < 40);
    }

    void whatIsNoDirectoryIsRefused()
    {
        const QTemporaryDir top;
        putFile(top.filePath(u"file"_s), "");
        PrivateDirectory directory;
        QString error;
        QVERIFY(!directory.open(top.filePath(u"file"_s), &error));
        QVERIFY(error.startsWith(u"Failed to open the directory"_s));
        QCOMPARE(directory.descriptor(), -1);
    }

    void directoryThatOthersCanChangeIsRefused_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("group") << 0770;
        QTest::newRow("others") << 01707;
    }
    void directoryThatOthersCanChangeIsRefused()
    {
        QFETCH(int, mode);
        const QTemporaryDir top;
        QVERIFY(::chmod(qPrintable(top.path()), static_cast<mode_t>(mode)) == 0);
        PrivateDirectory directory;
        QString error;
        QVERIFY(!directory.open(top.path(), &error));
        QVERIFY2(error.startsWith(u"Other users can change"_s), qPrintable(error));
    }

    void directoryOfAnotherUserIsRefused()
    {
        if (!canPlayStranger()) {
            QSKIP("only root can play a stranger");
        }
        const QTemporaryDir top;
        QVERIFY(::chown(qPrintable(top.path()), kStrangerId, kStrangerId) == 0);
        PrivateDirectory directory;
        QString error;
        QVERIFY(!directory.open(top.path(), &error));
    }
};

ZARVO_TEST(TestPrivateDirectory)
#include "tst_privatedirectory.moc"
