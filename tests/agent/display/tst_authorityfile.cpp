// SPDX-License-Identifier: MIT
#include "agent/display/authorityfile.h"
#include "tests/agent/authorityentry.h"
#include "tests/testmain.h"

#include <QFile>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class AuthorityFileTest final : public QObject
{
    Q_OBJECT

    static QByteArray localEntry(const QByteArray &cookie)
    {
        return authorityEntry("7", "MIT-MAGIC-COOKIE-1", cookie, QSysInfo::machineHostName().toLocal8Bit());
    }

    static QByteArray contentOf(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void everyNameOfTheDisplayGetsTheNewCookie_data()
    {
        QTest::addColumn<QByteArray>("earlier");
        QTest::addColumn<bool>("hasOther"); // beside the local name: "host"
        const QByteArray other = authorityEntry("8");
        QTest::newRow("none") << QByteArray() << false;
        QTest::newRow("local name") << localEntry(QByteArray(16, 'o')) << false;
        QTest::newRow("other name") << authorityEntry("7") << true;
        QTest::newRow("both names") << localEntry(QByteArray(16, 'o')) + authorityEntry("7") << true;
        QTest::newRow("one name twice") << authorityEntry("7") + authorityEntry("7") << true;
        QTest::newRow("after another display") << other + authorityEntry("7") << true;
        QTest::newRow("another display") << other << false;
        QTest::newRow("longer number") << authorityEntry("77") << false;
        QTest::newRow("any display") << authorityEntry("") << false;
        QTest::newRow("damaged after the entry") << authorityEntry("7") + "x" << true;
        QTest::newRow("damaged before the entry") << "x" + authorityEntry("7") << false;
    }

    void everyNameOfTheDisplayGetsTheNewCookie()
    {
        QFETCH(QByteArray, earlier);
        QFETCH(bool, hasOther);
        DisplayAuthority authority;
        QString error;
        QVERIFY(makeAuthority(earlier, 7, &authority, &error));
        QCOMPARE(authority.cookie.size(), 16);
        const QByteArray other = hasOther ? authorityEntry("7", "MIT-MAGIC-COOKIE-1", authority.cookie) : QByteArray();
        QCOMPARE(authority.entries, localEntry(authority.cookie) + other);
    }

    void cookiesDiffer()
    {
        DisplayAuthority first;
        DisplayAuthority second;
        QString error;
        QVERIFY(makeAuthority(localEntry(QByteArray(16, 'c')), 7, &first, &error));
        QVERIFY(makeAuthority(first.entries, 7, &second, &error));
        QVERIFY(first.cookie != second.cookie);
        QVERIFY(!second.entries.contains(first.cookie));
    }

    void fileIsReplacedByAPrivateOne()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"authority"_s);
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(authorityEntry("7"));
        QVERIFY(file.setPermissions(QFileDevice::ReadOwner | QFileDevice::ReadOther));
        file.close();
        DisplayAuthority authority;
        QString error;
        QVERIFY(renewAuthorityFile(path, 7, &authority, &error));
        QCOMPARE(contentOf(path), authority.entries);
        QVERIFY(authority.entries.contains("host"));
        QCOMPARE(QFile::permissions(path) & (QFileDevice::ReadGroup | QFileDevice::ReadOther),
                 QFileDevice::Permissions());
        QVERIFY(!contentOf(path).contains(QByteArray(16, 'c')));
    }

    void missingFileIsMade()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"authority"_s);
        DisplayAuthority authority;
        QString error;
        QVERIFY(renewAuthorityFile(path, 7, &authority, &error));
        QCOMPARE(contentOf(path), localEntry(authority.cookie));
    }

    void errorNamesTheFile()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"missing/authority"_s);
        DisplayAuthority authority;
        QString error;
        QVERIFY(!renewAuthorityFile(path, 7, &authority, &error));
        QVERIFY(error.contains(path));
    }

    void sealedFileCannotBeChanged()
    {
        QString error;
        const int descriptor = sealedAuthority("entries", &error);
        QVERIFY(descriptor != -1);
        QVERIFY(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
        const QByteArray path = "/proc/self/fd/" + QByteArray::number(descriptor);
        QVERIFY(::write(descriptor, "x", 1) == -1);
        QVERIFY(::ftruncate(descriptor, 0) == -1);
        const int again = ::open(path.constData(), O_RDWR | O_CLOEXEC);
        QVERIFY(again == -1 || ::write(again, "x", 1) == -1);
        ::close(again);
        // Can be read again and again, because each open() starts at the beginning.
        for (int i = 0; i < 2; ++i) {
            QFile file(QString::fromLatin1(path));
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(file.readAll(), QByteArray("entries"));
        }
        ::close(descriptor);
    }
};

ZARVO_TEST(AuthorityFileTest)
#include "tst_authorityfile.moc"
