// SPDX-License-Identifier: MIT
#include "server/certificates.h"
#include "support/credentials.h"
#include "support/programrunner.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestCertificates : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void missingPairIsCreated();
    void existingCertificateIsKept_data();
    void existingCertificateIsKept();
    void missingCertificateReplacesTheKey();
    void opensslGetsExactlyTheseArguments();
    void missingOpensslIsReported();
    void firstErrorLineOfOpensslIsReported();
    void filesOfAFailedRunStay();

private:
    [[nodiscard]] QString certificatePath() const { return dir->filePath(u"server_cert"_s); }
    [[nodiscard]] QString keyPath() const { return dir->filePath(u"server_key"_s); }
    /** Puts a program named "openssl" before all others on the search path. */
    void replaceOpenssl(const QByteArray &script);

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<EnvironmentVariable> searchPath;
    mode_t previousMask = 0;
};

void TestCertificates::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(dir->path()).mkdir(u"bin"_s));
    previousMask = ::umask(077);
}

void TestCertificates::cleanup()
{
    ::umask(previousMask);
    searchPath.reset();
    dir.reset();
}

void TestCertificates::replaceOpenssl(const QByteArray &script)
{
    const QString program = dir->filePath(u"bin/openssl"_s);
    putFile(program, "#!/bin/sh\n" + script);
    QVERIFY(QFile::setPermissions(program, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    searchPath = std::make_unique<EnvironmentVariable>("PATH", QFile::encodeName(dir->filePath(u"bin"_s)) + ':' +
                                                                   qgetenv("PATH"));
}

void TestCertificates::missingPairIsCreated()
{
    const QDateTime before = QDateTime::currentDateTime();
    QString error = u"untouched"_s;
    QVERIFY2(createCertificates(certificatePath(), keyPath(), &error), qPrintable(error));
    QCOMPARE(error, u"untouched"_s);
    QCOMPARE(modeOf(certificatePath()), 0600);
    QCOMPARE(modeOf(keyPath()), 0600);

    QSslCertificate certificate;
    QSslKey key;
    QVERIFY2(readCertificate(certificatePath(), &certificate, &error), qPrintable(error));
    QVERIFY2(readPrivateKey(keyPath(), &key, &error), qPrintable(error));
    QCOMPARE(key.length(), 2048);
    QVERIFY(certificate.isSelfSigned());
    QCOMPARE(certificate.effectiveDate().secsTo(certificate.expiryDate()), 365LL * 24 * 3600);
    QVERIFY(qAbs(before.secsTo(certificate.effectiveDate())) < 120);

    // That they belong together is beyond Qt's classes.
    const QString publicKey = dir->filePath(u"public"_s);
    QVERIFY(runProgram(u"openssl"_s, {u"rsa"_s, u"-in"_s, keyPath(), u"-pubout"_s, u"-out"_s, publicKey}, QString(),
                       60000, &error));
    QCOMPARE(certificate.publicKey().toPem(), contentOf(publicKey));
}

void TestCertificates::existingCertificateIsKept_data()
{
    QTest::addColumn<QByteArray>("certificate");
    QTest::addColumn<QByteArray>("key"); // null: there is none
    QTest::newRow("both") << "certificate"_ba
                          << "key"_ba;
    QTest::newRow("no key") << "certificate"_ba << QByteArray();
    QTest::newRow("empty certificate") << QByteArray("") << QByteArray();
}

void TestCertificates::existingCertificateIsKept()
{
    QFETCH(const QByteArray, certificate);
    QFETCH(const QByteArray, key);
    putFile(certificatePath(), certificate);
    if (!key.isNull()) {
        putFile(keyPath(), key);
    }
    replaceOpenssl("exit 1\n");
    QString error = u"untouched"_s;
    QVERIFY(createCertificates(certificatePath(), keyPath(), &error));
    QCOMPARE(error, u"untouched"_s);
    QCOMPARE(contentOf(certificatePath()), certificate);
    QCOMPARE(contentOf(keyPath()), key);
    QCOMPARE(QFile::exists(keyPath()), !key.isNull());
}

void TestCertificates::missingCertificateReplacesTheKey()
{
    putFile(keyPath(), "key");
    QString error;
    QVERIFY2(createCertificates(certificatePath(), keyPath(), &error), qPrintable(error));
    QVERIFY(QFile::exists(certificatePath()));
    QSslKey key;
    QVERIFY2(readPrivateKey(keyPath(), &key, &error), qPrintable(error));
}

void TestCertificates::opensslGetsExactlyTheseArguments()
{
    const QString record = dir->filePath(u"record"_s);
    replaceOpenssl("printf '%s\\n' \"$@\" > '" + QFile::encodeName(record) + "'\n");
    QString error;
    const QString certificate = dir->filePath(u"P/../a certificate"_s);
    const QString key = dir->filePath(u"P/../a key"_s);
    QVERIFY2(createCertificates(certificate, key, &error), qPrintable(error));
    const QStringList expected = {u"req"_s, u"-x509"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-keyout"_s,
                                  key,      u"-out"_s,  certificate,  u"-days"_s,    u"365"_s,    u"-batch"_s};
    QCOMPARE(QString::fromUtf8(contentOf(record)), QString(expected.join(u'\n') + u'\n'));
}

void TestCertificates::missingOpensslIsReported()
{
    searchPath = std::make_unique<EnvironmentVariable>("PATH", QFile::encodeName(dir->filePath(u"bin"_s)));
    QString error;
    QVERIFY(!createCertificates(certificatePath(), keyPath(), &error));
    const QString beginning = u"Failed to run the program \"openssl\": "_s;
    QVERIFY2(error.startsWith(beginning), qPrintable(error));
    QVERIFY2(error.size() > beginning.size(), qPrintable(error));
    QVERIFY(!QFile::exists(certificatePath()));
    QVERIFY(!QFile::exists(keyPath()));
}

void TestCertificates::firstErrorLineOfOpensslIsReported()
{
    replaceOpenssl("echo 'no randomness' >&2; echo more >&2; exit 1\n");
    QString error;
    QVERIFY(!createCertificates(certificatePath(), keyPath(), &error));
    QCOMPARE(error, u"Failed to run the program \"openssl\": no randomness"_s);
}

void TestCertificates::filesOfAFailedRunStay()
{
    replaceOpenssl("echo half > \"$7\"; exit 1\n");
    QString error;
    QVERIFY(!createCertificates(certificatePath(), keyPath(), &error));
    QCOMPARE(contentOf(keyPath()), "half\n"_ba);
    QVERIFY(!QFile::exists(certificatePath()));
}

ZARVO_TEST(TestCertificates)

#include "tst_certificates.moc"
