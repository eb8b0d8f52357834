// SPDX-License-Identifier: MIT
#include "agent/display/displaysocket.h"
#include "support/localendpoint.h"
#include "tests/helpers/stranger.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class DisplaySocketTest final : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> top;
    QString folder;
    QString file;

    [[nodiscard]] mode_t modeOf(const QString &path) const
    {
        struct stat status = {};
        return ::lstat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    /** Whether a connection succeeds; otherwise errno says why not. */
    static bool connects(int descriptor)
    {
        if (descriptor == -1) {
            return false;
        }
        ::close(descriptor);
        return true;
    }

    [[nodiscard]] bool connectsToName() const { return connects(connectAbstractSocket(QFile::encodeName(file))); }
    [[nodiscard]] bool connectsToFile() const { return connects(connectLocalSocket(file)); }

private slots:
    void init()
    {
        top = std::make_unique<QTemporaryDir>();
        folder = top->filePath(u"displays"_s);
        file = folder + u"/X7"_s;
    }

    void listensAtAPrivateFileAndHoldsTheName()
    {
        QString error;
        {
            DisplaySocket socket(folder);
            QVERIFY2(socket.listen(7, &error), qPrintable(error));
            QVERIFY(socket.weakness().isEmpty());
            QCOMPARE(modeOf(folder), mode_t{01777});
            QCOMPARE(modeOf(file), mode_t{0600});
            QVERIFY(connectsToFile());
            QVERIFY(!connectsToName());
            QCOMPARE(errno, ECONNREFUSED);
            QCOMPARE(bindAbstractSocket(QFile::encodeName(file), &error), -1);
        }
        QVERIFY(!QFile::exists(file));
        const int name = bindAbstractSocket(QFile::encodeName(file), &error);
        QVERIFY(name != -1);
        ::close(name);
    }

    void nobodyListensOnceTheOnlyCopyIsClosed()
    {
        DisplaySocket socket(folder);
        QString error;
        QVERIFY(socket.listen(7, &error));
        const int copy = ::dup(socket.descriptor());
        socket.handedOver();
        QCOMPARE(socket.descriptor(), -1);
        QVERIFY(connectsToFile());
        ::close(copy);
        QVERIFY(!connectsToFile());
    }

    void takenNameIsReported()
    {
        QString error;
        const int other = bindAbstractSocket(QFile::encodeName(file), &error);
        QVERIFY(other != -1);
        DisplaySocket socket(folder);
        QVERIFY(!socket.listen(7, &error));
        QVERIFY(error.contains(file));
        QVERIFY(!QFile::exists(file));
        ::close(other);
    }

    void staleFileIsReplaced()
    {
        QVERIFY(QDir().mkdir(folder));
        QString error;
        ::close(listenPrivately(file, 1, &error));
        DisplaySocket socket(folder);
        QVERIFY(socket.listen(7, &error));
        QVERIFY(socket.weakness().isEmpty());
        QVERIFY(connectsToFile());
    }

    void fileOfAnotherServerStays()
    {
        QString error;
        int other = -1;
        {
            DisplaySocket socket(folder);
            QVERIFY(socket.listen(7, &error));
            QVERIFY(QFile::remove(file));
            other = listenPrivately(file, 1, &error);
        }
        QVERIFY(connectsToFile());
        ::close(other);
    }

    void folderThatOthersControlIsLeftAlone_data()
    {
        QTest::addColumn<QString>("kind");
        for (const char *kind : {"foreign", "writable", "link", "taken"}) {
            QTest::newRow(kind) << QString::fromLatin1(kind);
        }
    }

    void folderThatOthersControlIsLeftAlone()
    {
        QFETCH(QString, kind);
        const QByteArray encoded = QFile::encodeName(folder);
        if (kind == "link"_L1) {
            QVERIFY(QFile::link(top->path(), folder));
        } else {
            QVERIFY(QDir().mkdir(folder));
        }
        if (kind == "foreign"_L1 && !canPlayStranger()) {
            QSKIP("only root can give a folder away");
        }
        if (kind == "foreign"_L1) {
            QCOMPARE(::chown(encoded.constData(), kStrangerId, kStrangerId), 0);
        } else if (kind == "writable"_L1) {
            QCOMPARE(::chmod(encoded.constData(), 0777), 0);
        } else if (kind == "taken"_L1) {
            QVERIFY(QDir().mkdir(file));
        }
        DisplaySocket socket(folder);
        QString error;
        QVERIFY(socket.listen(7, &error));
        QVERIFY(socket.weakness().contains(u"display 7"_s));
        QVERIFY(socket.weakness().contains(folder));
        QCOMPARE(QFile::exists(file), kind == "taken"_L1);
        QVERIFY(connectsToName());
    }
};

ZARVO_TEST(DisplaySocketTest)
#include "tst_displaysocket.moc"
