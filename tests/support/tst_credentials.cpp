// SPDX-License-Identifier: MIT
#include "support/credentials.h"
#include "support/programrunner.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <QDateTime>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestCredentials : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void certificateIsLoadedFromTheFirstMegabyte_data();
    void certificateIsLoadedFromTheFirstMegabyte();
    void fileWithoutACertificateIsRefused_data();
    void fileWithoutACertificateIsRefused();
    void expiredCertificateIsLoaded();
    void keyIsLoadedFromTheFirstMegabyte_data();
    void keyIsLoadedFromTheFirstMegabyte();
    void fileWithoutAUsableKeyIsRefused_data();
    void fileWithoutAUsableKeyIsRefused();
    void unreadableFileIsReported_data();
    void unreadableFileIsReported();
    void keyIsReadBeforeTheCertificate();
    void fileThatOthersCanWriteToIsRefused();
    void readableKeyIsReported_data();
    void readableKeyIsReported();

private:
    [[nodiscard]] bool openssl(const QString &arguments);
    [[nodiscard]] QByteArray made(const QString &name) const;
    void putContent(const QByteArray &content) const;
    [[nodiscard]] QString path() const;

    QTemporaryDir dir;
};

namespace {

constexpr int kMegabyte = 1024 * 1024;

/** @p block with as much text before it as is needed for it to end at byte @p end of the file. */
QByteArray endingAt(int end, const QByteArray &block)
{
    return QByteArray(end - block.size() - 1, '#') + '\n' + block;
}

} // namespace

bool TestCredentials::openssl(const QString &arguments)
{
    QString error;
    const bool succeeded = runProgram(u"openssl"_s, arguments.split(u' '), dir.path(), 60000, &error);
    if (!succeeded) {
        qWarning("%s", qPrintable(error));
    }
    return succeeded;
}

QByteArray TestCredentials::made(const QString &name) const
{
    return contentOf(dir.filePath(name));
}

QString TestCredentials::path() const
{
    return dir.filePath(u"tested"_s);
}

void TestCredentials::putContent(const QByteArray &content) const
{
    putFile(path(), content);
}

void TestCredentials::initTestCase()
{
    QVERIFY(openssl(u"req -x509 -newkey rsa:2048 -nodes -keyout key -out cert -days 365 -subj /CN=one"_s));
    QVERIFY(openssl(u"req -x509 -key key -out cert2 -days 365 -subj /CN=two"_s));
    QVERIFY(openssl(u"rsa -in key -traditional -out pkcs1"_s));
    QVERIFY(openssl(u"rsa -in key -aes128 -passout pass:secret -out encrypted"_s));
    QVERIFY(openssl(u"rsa -in key -traditional -aes128 -passout pass:secret -out encrypted1"_s));
    QVERIFY(openssl(u"rsa -in key -pubout -out public"_s));
    QVERIFY(openssl(u"ecparam -name prime256v1 -genkey -noout -out elliptic"_s));
    QVERIFY(openssl(u"x509 -in cert -outform DER -out der"_s));
}

void TestCredentials::certificateIsLoadedFromTheFirstMegabyte_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray certificate = made(u"cert"_s);
    QTest::newRow("alone") << certificate;
    QTest::newRow("text before") << QByteArray("some text\n" + certificate);
    QTest::newRow("after its key") << QByteArray(made(u"key"_s) + certificate);
    QTest::newRow("before another one") << QByteArray(certificate + made(u"cert2"_s));
    QTest::newRow("at the start of two megabytes") << QByteArray(certificate + QByteArray(2 * kMegabyte, '#'));
    QTest::newRow("ends one byte before the limit") << endingAt(kMegabyte - 1, certificate);
    QTest::newRow("ends at the limit, with more after it")
        << QByteArray(endingAt(kMegabyte, certificate) + QByteArray(kMegabyte, '#'));
}

void TestCredentials::certificateIsLoadedFromTheFirstMegabyte()
{
    QFETCH(const QByteArray, content);
    putContent(content);
    QSslCertificate certificate;
    QString error = u"untouched"_s;
    QVERIFY(readCertificate(path(), &certificate, &error));
    QCOMPARE(certificate.subjectInfo(QSslCertificate::CommonName), QStringList{u"one"_s});
    QCOMPARE(error, u"untouched"_s);
}

void TestCredentials::fileWithoutACertificateIsRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray certificate = made(u"cert"_s);
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("text") << "no certificate"_ba;
    QTest::newRow("key") << made(u"key"_s);
    QTest::newRow("half of one") << certificate.first(certificate.size() / 2);
    QTest::newRow("not PEM") << made(u"der"_s);
    QTest::newRow("cut by the limit") << endingAt(kMegabyte + 10, certificate);
    QTest::newRow("after the limit") << endingAt(2 * kMegabyte, certificate);
}

void TestCredentials::fileWithoutACertificateIsRefused()
{
    QFETCH(const QByteArray, content);
    putContent(content);
    QSslCertificate certificate(made(u"cert2"_s), QSsl::Pem);
    QString error;
    QVERIFY(!readCertificate(path(), &certificate, &error));
    QCOMPARE(error, u"Invalid certificate in file \"%1\""_s.arg(path()));
    QCOMPARE(certificate.subjectInfo(QSslCertificate::CommonName), QStringList{u"two"_s});
}

void TestCredentials::expiredCertificateIsLoaded()
{
    QVERIFY(openssl(u"req -new -key key -out request -subj /CN=old"_s));
    QVERIFY(openssl(u"x509 -req -in request -signkey key -days -1 -out tested"_s));
    QSslCertificate certificate;
    QString error;
    QVERIFY2(readCertificate(path(), &certificate, &error), qPrintable(error));
    QVERIFY(certificate.expiryDate() < QDateTime::currentDateTime());
}

void TestCredentials::keyIsLoadedFromTheFirstMegabyte_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray key = made(u"key"_s);
    QTest::newRow("PKCS #8") << key;
    QTest::newRow("PKCS #1") << made(u"pkcs1"_s);
    QTest::newRow("before its certificate") << QByteArray(key + made(u"cert"_s));
    QTest::newRow("at the start of two megabytes") << QByteArray(key + QByteArray(2 * kMegabyte, '#'));
    QTest::newRow("ends at the limit, with more after it")
        << QByteArray(endingAt(kMegabyte, key) + QByteArray(kMegabyte, '#'));
}

void TestCredentials::keyIsLoadedFromTheFirstMegabyte()
{
    QFETCH(const QByteArray, content);
    putContent(content);
    QSslKey key;
    QString error = u"untouched"_s;
    QVERIFY(readPrivateKey(path(), &key, &error));
    QCOMPARE(key.type(), QSsl::PrivateKey);
    QCOMPARE(key.algorithm(), QSsl::Rsa);
    QCOMPARE(key.length(), 2048);
    QCOMPARE(key, QSslKey(made(u"pkcs1"_s), QSsl::Rsa));
    QCOMPARE(error, u"untouched"_s);
}

void TestCredentials::fileWithoutAUsableKeyIsRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    const QByteArray key = made(u"key"_s);
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("text") << "no key"_ba;
    QTest::newRow("certificate") << made(u"cert"_s);
    QTest::newRow("public key") << made(u"public"_s);
    QTest::newRow("elliptic curve") << made(u"elliptic"_s);
    QTest::newRow("with a pass phrase") << made(u"encrypted"_s);
    QTest::newRow("PKCS #1 with a pass phrase") << made(u"encrypted1"_s);
    QTest::newRow("half of one") << key.first(key.size() / 2);
    QTest::newRow("cut by the limit") << endingAt(kMegabyte + 10, key);
    QTest::newRow("after the limit") << endingAt(2 * kMegabyte, key);
}

void TestCredentials::fileWithoutAUsableKeyIsRefused()
{
    QFETCH(const QByteArray, content);
    QVERIFY(!content.isNull());
    putContent(content);
    QSslKey key(made(u"key"_s), QSsl::Rsa);
    const QSslKey before = key;
    QString error;
    QVERIFY(!readPrivateKey(path(), &key, &error));
    QCOMPARE(error, u"Invalid private key in file \"%1\""_s.arg(path()));
    QCOMPARE(key, before);
}

void TestCredentials::unreadableFileIsReported_data()
{
    QTest::addColumn<QString>("file"); // "%1": the test's directory
    QTest::addColumn<QString>("pattern");
    QTest::newRow("missing") << u"%1/missing"_s << u"Failed to open the file \"%1\": No such file or directory"_s;
    QTest::newRow("file as directory") << u"%1/cert/x"_s << u"Failed to open the file \"%1\": Not a directory"_s;
    QTest::newRow("pipe") << u"%1/pipe"_s << u"Failed to open the file \"%1\": Not a regular file"_s;
    QTest::newRow("read error") << u"/proc/self/mem"_s << u"Failed to read from the file \"%1\": Input/output error"_s;
}

void TestCredentials::unreadableFileIsReported()
{
    QFETCH(QString, file);
    QFETCH(const QString, pattern);
    file.replace(u"%1"_s, dir.path());
    [[maybe_unused]] const int made = ::mkfifo(QFile::encodeName(dir.filePath(u"pipe"_s)).constData(), 0600);

    QSslCertificate certificate;
    QString error;
    QVERIFY(!readCertificate(file, &certificate, &error));
    QCOMPARE(error, pattern.arg(file));
    error.clear();
    QSslKey key;
    QVERIFY(!readPrivateKey(file, &key, &error));
    QCOMPARE(error, pattern.arg(file));
    QVERIFY(certificate.isNull());
    QVERIFY(key.isNull());
}

void TestCredentials::keyIsReadBeforeTheCertificate()
{
    QSslKey key;
    QSslCertificate certificate;
    QString error = u"untouched"_s;
    QVERIFY(readCredentials(dir.filePath(u"key"_s), dir.filePath(u"cert"_s), &key, &certificate, &error));
    QCOMPARE(error, u"untouched"_s);
    QVERIFY(!key.isNull() && !certificate.isNull());

    const QString noKey = dir.filePath(u"no key"_s);
    const QString noCertificate = dir.filePath(u"no certificate"_s);
    QVERIFY(!readCredentials(noKey, noCertificate, &key, &certificate, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(noKey));
    QVERIFY(!readCredentials(dir.filePath(u"key"_s), noCertificate, &key, &certificate, &error));
    QCOMPARE(error, u"Failed to open the file \"%1\": No such file or directory"_s.arg(noCertificate));
}

void TestCredentials::fileThatOthersCanWriteToIsRefused()
{
    putContent(made(u"cert"_s) + made(u"key"_s));
    QCOMPARE(::chmod(QFile::encodeName(path()).constData(), 0606), 0);
    QSslKey key;
    QSslCertificate certificate;
    QString error;
    QVERIFY(!readCertificate(path(), &certificate, &error));
    QVERIFY2(error.startsWith(u"The file \"%1\" is not used: others can write to"_s.arg(path())), qPrintable(error));
    QVERIFY(!readPrivateKey(path(), &key, &error));
    QCOMPARE(::chmod(QFile::encodeName(path()).constData(), 0600), 0);
    QVERIFY(readCertificate(path(), &certificate, &error));
    QVERIFY(readPrivateKey(path(), &key, &error));
}

void TestCredentials::readableKeyIsReported_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("isReported");
    QTest::newRow("private") << 0600 << false;
    QTest::newRow("execution") << 0711 << false;
    QTest::newRow("group") << 0640 << true;
    QTest::newRow("others") << 0604 << true;
}

void TestCredentials::readableKeyIsReported()
{
    QFETCH(const int, mode);
    QFETCH(const bool, isReported);
    putContent(made(u"key"_s));
    QCOMPARE(::chmod(QFile::encodeName(path()).constData(), static_cast<mode_t>(mode)), 0);
    const QString text = keyExposure(path());
    QCOMPARE(::chmod(QFile::encodeName(path()).constData(), 0600), 0);
    QCOMPARE(text, isReported ? u"Others can read the private key in file \"%1\" (mode %2)"_s.arg(
                                    path(), QString::number(mode, 8).rightJustified(4, u'0'))
                              : QString());
}

ZARVO_TEST(TestCredentials)

#include "tst_credentials.moc"
