// SPDX-License-Identifier: MIT
#include "client/server/certificatestore.h"
#include "support/credentials.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestCertificateStore : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void onlyFingerprintsAreIds_data();
    void onlyFingerprintsAreIds();
    void createdPairIsNotUsedYet();
    void usedPairIsRead();
    void pairBeforeItStaysStored();
    void pairInUseIsNotDiscarded();
    void addedPairHasTheSameId();
    void pairThatDoesNotBelongTogetherIsRefused();
    void folderThatOthersCanWriteToIsRefused();
    void unknownPairIsRefused();

private:
    [[nodiscard]] QString path(const QString &name) const { return dir->filePath(name); }
    [[nodiscard]] QString certificatePath() const { return path(u"server_cert"_s); }
    [[nodiscard]] QString keyPath() const { return path(u"server_key"_s); }
    [[nodiscard]] QStringList stored() const
    {
        return QDir(dir->path()).entryList({u"server_pair-*"_s}, QDir::AllEntries | QDir::System);
    }

    void makeStoredOld() const
    {
        const timespec times[2] = {}; // 1970
        for (const QString &name : stored()) {
            QCOMPARE(::utimensat(AT_FDCWD, QFile::encodeName(path(name)).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
        }
    }

    std::unique_ptr<QTemporaryDir> dir;
    QString error;
};

void TestCertificateStore::init()
{
    dir = std::make_unique<QTemporaryDir>();
    error.clear();
}

void TestCertificateStore::onlyFingerprintsAreIds_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<bool>("isValid");
    QTest::newRow("fingerprint") << QString(32, u'a') << true;
    QTest::newRow("empty") << u""_s << false;
    QTest::newRow("too short") << QString(31, u'a') << false;
    QTest::newRow("too long") << QString(33, u'a') << false;
    QTest::newRow("upper case") << QString(32, u'A') << false;
    QTest::newRow("path") << QString(u"../"_s + QString(29, u'a')) << false;
    QTest::newRow("line feed") << QString(QString(32, u'a') + u'\n') << false;
}

void TestCertificateStore::onlyFingerprintsAreIds()
{
    QFETCH(const QString, id);
    QTEST(CertificateStore::isValidId(id), "isValid");
}

void TestCertificateStore::createdPairIsNotUsedYet()
{
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QVERIFY2(store.create(&id, &error), qPrintable(error));
    QVERIFY(CertificateStore::isValidId(id));
    QVERIFY(!store.isUsed(id));
    QVERIFY(!QFile::exists(certificatePath()));
    QCOMPARE(stored(), QStringList{u"server_pair-"_s + id});
    QCOMPARE(modeOf(path(u"server_pair-%1"_s.arg(id))), 0700);
    QCOMPARE(modeOf(path(u"server_pair-%1/key"_s.arg(id))), 0600);
    store.discard(id);
    QCOMPARE(stored(), QStringList());
}

void TestCertificateStore::usedPairIsRead()
{
    putFile(certificatePath(), "old certificate");
    putFile(keyPath(), "old key");
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QVERIFY2(store.create(&id, &error) && store.use(id, &error), qPrintable(error));
    QVERIFY(store.isUsed(id));
    QVERIFY2(store.use(id, &error), qPrintable(error)); // a second time changes nothing
    QSslKey key;
    QSslCertificate certificate;
    QVERIFY2(readCredentials(keyPath(), certificatePath(), &key, &certificate, &error), qPrintable(error));
    QCOMPARE(contentOf(certificatePath()), contentOf(path(u"server_pair-%1/cert"_s.arg(id))));
}

void TestCertificateStore::pairBeforeItStaysStored()
{
    CertificateStore store(certificatePath(), keyPath());
    QString ids[3];
    for (QString &id : ids) {
        makeStoredOld(); // young ones stay
        QVERIFY2(store.create(&id, &error) && store.use(id, &error), qPrintable(error));
    }
    QStringList expected = {u"server_pair-"_s + ids[1], u"server_pair-"_s + ids[2]};
    expected.sort();
    QCOMPARE(stored(), expected);
}

void TestCertificateStore::pairInUseIsNotDiscarded()
{
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QVERIFY2(store.create(&id, &error) && store.use(id, &error), qPrintable(error));
    store.discard(id);
    QVERIFY(QFile::exists(certificatePath()));
}

void TestCertificateStore::addedPairHasTheSameId()
{
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QByteArray certificate;
    QByteArray key;
    QVERIFY2(store.create(&id, &error) && store.read(id, &certificate, &key, &error), qPrintable(error));
    QString sameId;
    QVERIFY2(store.add(certificate, key, &sameId, &error), qPrintable(error)); // a host that shares the folder
    QCOMPARE(sameId, id);
    QCOMPARE(stored().size(), 1);

    const QTemporaryDir other;
    CertificateStore others(other.filePath(u"server_cert"_s), other.filePath(u"server_key"_s));
    QVERIFY2(others.add(certificate, key, &sameId, &error) && others.use(sameId, &error), qPrintable(error));
    QCOMPARE(sameId, id);
    QCOMPARE(contentOf(other.filePath(u"server_key"_s)), key);
}

void TestCertificateStore::pairThatDoesNotBelongTogetherIsRefused()
{
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QByteArray certificate;
    QByteArray key;
    QVERIFY2(store.create(&id, &error) && store.read(id, &certificate, &key, &error), qPrintable(error));
    store.discard(id);
    QString added = u"untouched"_s;
    QVERIFY(!store.add(certificate, "no key", &added, &error));
    QCOMPARE(error, u"The new certificate and key do not belong together"_s);
    QCOMPARE(added, u"untouched"_s);
    QCOMPARE(stored(), QStringList());
}

void TestCertificateStore::folderThatOthersCanWriteToIsRefused()
{
    QCOMPARE(::chmod(QFile::encodeName(dir->path()).constData(), 0777), 0);
    CertificateStore store(certificatePath(), keyPath());
    QString id;
    QVERIFY(!store.create(&id, &error));
    QVERIFY2(error.contains(u"others can write to"_s), qPrintable(error));
    QCOMPARE(stored(), QStringList());
}

void TestCertificateStore::unknownPairIsRefused()
{
    CertificateStore store(certificatePath(), keyPath());
    QVERIFY(!store.use(QString(32, u'a'), &error));
    QVERIFY2(error.startsWith(u"Failed to open the file"_s), qPrintable(error));
    QVERIFY(!QFileInfo(certificatePath()).isSymLink());
}

ZARVO_TEST(TestCertificateStore)

#include "tst_certificatestore.moc"
