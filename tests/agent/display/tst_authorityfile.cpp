// SPDX-License-Identifier: MIT
#include "agent/display/authorityfile.h"
#include "tests/agent/authorityentry.h"
#include "tests/testmain.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class AuthorityFileTest final : public QObject
{
    Q_OBJECT

private slots:
    void findsTheEntriesOfTheDisplay_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("entries"); // empty: refused
        const QByteArray other = authorityEntry("8", "MIT-MAGIC-COOKIE-1", QByteArray(16, 'o'));
        QTest::newRow("one") << authorityEntry("7") << authorityEntry("7");
        QTest::newRow("after another display") << other + authorityEntry("7") << authorityEntry("7");
        QTest::newRow("two for us") << authorityEntry("7") + other + authorityEntry("7")
                                    << authorityEntry("7") + authorityEntry("7");
        QTest::newRow("none") << QByteArray() << QByteArray();
        QTest::newRow("another display") << other << QByteArray();
        QTest::newRow("longer number") << authorityEntry("77") << QByteArray();
        QTest::newRow("any display") << authorityEntry("") << QByteArray();
        QTest::newRow("another method") << authorityEntry("7", "XDM-AUTHORIZATION-1") << QByteArray();
        QTest::newRow("longer method") << authorityEntry("7", "MIT-MAGIC-COOKIE-10") << QByteArray();
        QTest::newRow("empty cookie") << authorityEntry("7", "MIT-MAGIC-COOKIE-1", {}) << QByteArray();
        QTest::newRow("short cookie") << authorityEntry("7", "MIT-MAGIC-COOKIE-1", QByteArray(15, 'c')) << QByteArray();
        QTest::newRow("damaged after the entry") << authorityEntry("7") + "x" << QByteArray();
    }

    void findsTheEntriesOfTheDisplay()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, entries);
        DisplayAuthority authority;
        QCOMPARE(parseAuthority(content, 7, &authority), !entries.isEmpty());
        QCOMPARE(authority.entries, entries);
        QCOMPARE(authority.cookie, entries.isEmpty() ? QByteArray() : QByteArray(16, 'c'));
    }

    void everyTruncationIsRefused()
    {
        const QByteArray content = authorityEntry("7");
        for (qsizetype length = 0; length < content.size(); ++length) {
            DisplayAuthority authority;
            QVERIFY(!parseAuthority(content.first(length), 7, &authority));
            QVERIFY(authority.cookie.isEmpty());
        }
    }

    void errorNamesTheFile()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"authority"_s);
        DisplayAuthority authority;
        QString error;
        QVERIFY(!readAuthorityFile(path, 7, &authority, &error));
        QVERIFY(error.contains(path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(authorityEntry("7"));
        file.close();
        QVERIFY(!readAuthorityFile(path, 8, &authority, &error));
        QVERIFY(error.contains(path) && error.contains(u"display 8"_s));
        QVERIFY(readAuthorityFile(path, 7, &authority, &error));
        QCOMPARE(authority.entries, authorityEntry("7"));
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
