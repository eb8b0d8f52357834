// SPDX-License-Identifier: MIT
#include "agent/session/exitfile.h"
#include "tests/agent/testlog.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class ExitFileTest final : public QObject
{
    Q_OBJECT

private:
    QString before;
    std::unique_ptr<QTemporaryDir> directory;

    static QStringList names() { return QDir().entryList(QDir::Files | QDir::Hidden); }

private slots:
    void init()
    {
        before = QDir::currentPath();
        directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(directory->path()));
    }

    void cleanup()
    {
        QVERIFY(QDir::setCurrent(before));
        directory.reset();
    }

    void fileAppearsAtTheEnd()
    {
        QString error;
        {
            ExitFile file;
            QVERIFY(names().isEmpty());
            QVERIFY2(file.write(AgentExitCode::XServerDied, &error), qPrintable(error));
        }
        QCOMPARE(contentOf(SessionFile::kServerExit), QByteArray("3"));
        QCOMPARE(names(), QStringList{SessionFile::kServerExit});
        QVERIFY(!(QFileInfo(SessionFile::kServerExit).permissions() & (QFile::ReadGroup | QFile::ReadOther)));
    }

    void filesOfOtherRunsAreReplaced()
    {
        QFile other(SessionFile::kServerExit);
        QVERIFY(other.open(QIODevice::WriteOnly) && other.write("77") == 2);
        other.close();
        ExitFile file;
        QVERIFY(names().isEmpty());
        QVERIFY(other.open(QIODevice::WriteOnly) && other.write("77") == 2);
        other.close();
        QString error;
        QVERIFY2(file.write(AgentExitCode::Ended, &error), qPrintable(error));
        QCOMPARE(contentOf(SessionFile::kServerExit), QByteArray("0"));
    }

    // Reserved blocks stay available on a disk that fills up.
    void spaceIsReservedAtOnce()
    {
        const ExitFile file;
        const QDir descriptors(u"/proc/self/fd"_s);
        for (const QString &name : descriptors.entryList(QDir::Files | QDir::System)) {
            const QString target = QFile::symLinkTarget(descriptors.filePath(name));
            struct stat status = {};
            if (target.startsWith(directory->path()) && ::fstat(name.toInt(), &status) == 0) {
                QVERIFY(status.st_blocks > 0);
                return;
            }
        }
        QSKIP("this file system has no files without a name");
    }

    void removedDirectoryIsReported()
    {
        ExitFile file;
        QVERIFY(QDir(directory->path()).removeRecursively());
        QString error;
        QVERIFY(!file.write(AgentExitCode::Ended, &error));
        QVERIFY(error.contains(SessionFile::kServerExit));
    }
};

ZARVO_TEST(ExitFileTest)
#include "tst_exitfile.moc"
