// SPDX-License-Identifier: MIT
#include "client/reach/vncpasswordfile.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestVncPasswordFile : public QObject
{
    Q_OBJECT

private slots:
    void passwordIsEncrypted_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QByteArray>("file");
        // Written by "vncpasswd -f".
        QTest::newRow("whole") << u"password"_s << "dbd83cfd727a1458"_ba;
        QTest::newRow("short") << u"abc"_s << "9c0a172d3482e122"_ba;
        QTest::newRow("cut after eight") << u"password and more"_s << "dbd83cfd727a1458"_ba;
    }
    void passwordIsEncrypted()
    {
        QFETCH(QString, password);
        QFETCH(QByteArray, file);
        QCOMPARE(scrambledVncPassword(password).toHex(), file);
    }

    void fileCanBeReadRepeatedly()
    {
        VncPasswordFile file;
        QString error;
        QVERIFY2(file.create(u"password"_s, &error), qPrintable(error));
        for (int i = 0; i < 2; ++i) {
            QFile reader(file.path());
            QVERIFY(reader.open(QIODevice::ReadOnly));
            QCOMPARE(reader.readAll(), scrambledVncPassword(u"password"_s));
        }
    }

    void fileHasNoNameAndIsCloseOnExec()
    {
        VncPasswordFile file;
        QString error;
        QVERIFY(file.create(u"password"_s, &error));
        struct stat status = {};
        QCOMPARE(::fstat(file.descriptor(), &status), 0);
        QCOMPARE(status.st_nlink, 0U);
        QVERIFY((::fcntl(file.descriptor(), F_GETFD) & FD_CLOEXEC) != 0);
    }

    void destructorClosesTheFile()
    {
        int descriptor = -1;
        {
            VncPasswordFile file;
            QString error;
            QVERIFY(file.create(u"password"_s, &error));
            descriptor = file.descriptor();
        }
        QCOMPARE(::fcntl(descriptor, F_GETFD), -1);
    }
};

ZARVO_TEST(TestVncPasswordFile)
#include "tst_vncpasswordfile.moc"
