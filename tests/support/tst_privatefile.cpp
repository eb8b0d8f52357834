// SPDX-License-Identifier: MIT
#include "support/privatefile.h"
#include "tests/helpers/files.h"
#include "tests/helpers/fulldisk.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

class PrivateFileTest final : public QObject
{
    Q_OBJECT

private slots:
    void fileIsPrivateAndWhole()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"value"_s);
        QString error;
        QVERIFY(writePrivateFile(path, "12", &error));
        QCOMPARE(contentOf(path), QByteArray("12"));
        QVERIFY(writePrivateFile(path, "7", &error));
        QCOMPARE(contentOf(path), QByteArray("7"));
        QVERIFY(error.isEmpty());
        const QFile::Permissions permissions = QFileInfo(path).permissions();
        QVERIFY(!(permissions & (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther)));
        QCOMPARE(QDir(directory.path()).entryList(QDir::Files | QDir::Hidden), QStringList{u"value"_s});
    }

    void failureIsReported()
    {
        QString error;
        QVERIFY(!writePrivateFile(u"/nowhere/value"_s, "12", &error));
        QVERIFY(error.startsWith(u"Failed to open the file \"/nowhere/value\": "_s));
    }

    void fullDiskLeavesNoEmptyFile()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"value"_s);
        QString error;
        bool isWritten = true;
        {
            const FullDisk full;
            isWritten = writePrivateFile(path, "12", &error);
        }
        QVERIFY(!isWritten);
        QVERIFY(error.startsWith(u"Failed to write to the file \""_s + path));
        QVERIFY(!QFileInfo::exists(path));
    }
};

ZARVO_TEST(PrivateFileTest)
#include "tst_privatefile.moc"
