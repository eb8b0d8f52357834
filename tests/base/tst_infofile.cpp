// SPDX-License-Identifier: MIT
#include "base/infofile.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class TestInfoFile : public QObject
{
    Q_OBJECT

private slots:
    void fileIsRemovedWithTheObject();
    void missingFileIsNoError();
    void emptyPathRemovesNothing();
    void onlyTheLastPathIsRemoved();
    void noFileIsWritten();
    void fileIsRemovedWithTheParent();
};

void TestInfoFile::fileIsRemovedWithTheObject()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"pid"_s);
    putFile(dir.filePath(u"other"_s), "stays");
    {
        InfoFile file;
        file.setPath(path);
        QCOMPARE(file.path(), path);
        putFile(path, "12");
        QVERIFY(QFile::exists(path));
    }
    QVERIFY(!QFile::exists(path));
    QVERIFY(QFile::exists(dir.filePath(u"other"_s)));
}

void TestInfoFile::missingFileIsNoError()
{
    const QTemporaryDir dir;
    putFile(dir.filePath(u"other"_s), "stays");
    {
        InfoFile file;
        file.setPath(dir.filePath(u"pid"_s));
    }
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{u"other"_s});
}

void TestInfoFile::emptyPathRemovesNothing()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"pid"_s);
    putFile(path, "12");
    {
        InfoFile file;
        QCOMPARE(file.path(), QString());
        file.setPath(path);
        file.setPath(QString());
    }
    QVERIFY(QFile::exists(path));
}

void TestInfoFile::onlyTheLastPathIsRemoved()
{
    const QTemporaryDir dir;
    putFile(dir.filePath(u"one"_s), "1");
    putFile(dir.filePath(u"two"_s), "2");
    {
        InfoFile file;
        file.setPath(dir.filePath(u"one"_s));
        file.setPath(dir.filePath(u"two"_s));
    }
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList{u"one"_s});
}

void TestInfoFile::noFileIsWritten()
{
    const QTemporaryDir dir;
    InfoFile file;
    file.setPath(dir.filePath(u"pid"_s));
    QVERIFY(!QFile::exists(file.path()));
}

void TestInfoFile::fileIsRemovedWithTheParent()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"pid"_s);
    putFile(path, "12");
    {
        QObject parent;
        (new InfoFile(&parent))->setPath(path);
    }
    QVERIFY(!QFile::exists(path));
}

ZARVO_TEST(TestInfoFile)

#include "tst_infofile.moc"
