// SPDX-License-Identifier: MIT
#include "server/certificatefiles.h"
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

#include <array>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

class TestCertificateFiles : public QObject
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
    void createdFilesAreRemoved();
    void filesThatOpensslDidNotWriteStay_data();
    void filesThatOpensslDidNotWriteStay();
    void fileThatWasReplacedSinceStays_data();
    void fileThatWasReplacedSinceStays();
    void fileThatWasOverwrittenSinceStays_data();
    void fileThatWasOverwrittenSinceStays();
    void symlinksStayAndTheirTargetsGo();

private:
    [[nodiscard]] QString certificatePath() const { return dir->filePath(u"server_cert"_s); }
    [[nodiscard]] QString keyPath() const { return dir->filePath(u"server_key"_s); }
    [[nodiscard]] bool create(QString *error)
    {
        files = std::make_unique<CertificateFiles>(certificatePath(), keyPath());
        return files->createIfMissing(error);
    }
    /** Puts a program named "openssl" before all others on the search path. */
    void replaceOpenssl(const QByteArray &script);

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<EnvironmentVariable> searchPath;
    std::unique_ptr<CertificateFiles> files;
    mode_t previousMask = 0;
};

namespace {

struct stat stateOf(const QString &path)
{
    struct stat state = {};
    if (::stat(QFile::encodeName(path).constData(), &state) != 0) {
        qFatal("Failed to look at %s", qPrintable(path));
    }
    return state;
}

/** Overwrites a file without replacing it. @p modified is its modification time afterwards; null: the present. */
void overwrite(const QString &path, const QByteArray &content, const timespec *modified)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite) || file.write(content) != content.size() || !file.flush()) {
        qFatal("Failed to write %s", qPrintable(path));
    }
    const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, modified ? *modified : timespec{0, UTIME_NOW}};
    if (::futimens(file.handle(), times.data()) != 0) {
        qFatal("Failed to set the time of %s", qPrintable(path));
    }
}

} // namespace

void TestCertificateFiles::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(QDir(dir->path()).mkdir(u"bin"_s));
    previousMask = ::umask(077);
}

void TestCertificateFiles::cleanup()
{
    ::umask(previousMask);
    searchPath.reset();
    files.reset();
    dir.reset();
}

void TestCertificateFiles::replaceOpenssl(const QByteArray &script)
{
    const QString program = dir->filePath(u"bin/openssl"_s);
    putFile(program, "#!/bin/sh\n" + script);
    QVERIFY(QFile::setPermissions(program, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    searchPath = std::make_unique<EnvironmentVariable>("PATH", QFile::encodeName(dir->filePath(u"bin"_s)) + ':' +
                                                                   qgetenv("PATH"));
}

void TestCertificateFiles::missingPairIsCreated()
{
    const QDateTime before = QDateTime::currentDateTime();
    QString error = u"untouched"_s;
    QVERIFY2(create(&error), qPrintable(error));
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

    // Qt cannot tell whether key and certificate belong together.
    const QString publicKey = dir->filePath(u"public"_s);
    QVERIFY(runProgram(u"openssl"_s, {u"rsa"_s, u"-in"_s, keyPath(), u"-pubout"_s, u"-out"_s, publicKey}, QString(),
                       60000, &error));
    QCOMPARE(certificate.publicKey().toPem(), contentOf(publicKey));
}

void TestCertificateFiles::existingCertificateIsKept_data()
{
    QTest::addColumn<QByteArray>("certificate");
    QTest::addColumn<QByteArray>("key"); // null: no file
    QTest::newRow("both") << "certificate"_ba
                          << "key"_ba;
    QTest::newRow("no key") << "certificate"_ba << QByteArray();
    QTest::newRow("empty certificate") << QByteArray("") << QByteArray();
}

void TestCertificateFiles::existingCertificateIsKept()
{
    QFETCH(const QByteArray, certificate);
    QFETCH(const QByteArray, key);
    putFile(certificatePath(), certificate);
    if (!key.isNull()) {
        putFile(keyPath(), key);
    }
    replaceOpenssl("exit 1\n");
    QString error = u"untouched"_s;
    QVERIFY(create(&error));
    QCOMPARE(error, u"untouched"_s);
    QCOMPARE(contentOf(certificatePath()), certificate);
    QCOMPARE(contentOf(keyPath()), key);
    QCOMPARE(QFile::exists(keyPath()), !key.isNull());
}

void TestCertificateFiles::missingCertificateReplacesTheKey()
{
    putFile(keyPath(), "key");
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    QVERIFY(QFile::exists(certificatePath()));
    QSslKey key;
    QVERIFY2(readPrivateKey(keyPath(), &key, &error), qPrintable(error));
}

void TestCertificateFiles::opensslGetsExactlyTheseArguments()
{
    const QString record = dir->filePath(u"record"_s);
    replaceOpenssl("printf '%s\\n' \"$@\" > '" + QFile::encodeName(record) + "'\n");
    QString error;
    const QString certificate = dir->filePath(u"P/../a certificate"_s);
    const QString key = dir->filePath(u"P/../a key"_s);
    QVERIFY2(CertificateFiles(certificate, key).createIfMissing(&error), qPrintable(error));
    const QStringList expected = {u"req"_s, u"-x509"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-keyout"_s,
                                  key,      u"-out"_s,  certificate,  u"-days"_s,    u"365"_s,    u"-batch"_s};
    QCOMPARE(QString::fromUtf8(contentOf(record)), QString(expected.join(u'\n') + u'\n'));
}

void TestCertificateFiles::missingOpensslIsReported()
{
    searchPath = std::make_unique<EnvironmentVariable>("PATH", QFile::encodeName(dir->filePath(u"bin"_s)));
    QString error;
    QVERIFY(!create(&error));
    const QString beginning = u"Failed to run the program \"openssl\": "_s;
    QVERIFY2(error.startsWith(beginning), qPrintable(error));
    QVERIFY2(error.size() > beginning.size(), qPrintable(error));
    QVERIFY(!QFile::exists(certificatePath()));
    QVERIFY(!QFile::exists(keyPath()));
}

void TestCertificateFiles::firstErrorLineOfOpensslIsReported()
{
    replaceOpenssl("echo 'no randomness' >&2; echo more >&2; exit 1\n");
    QString error;
    QVERIFY(!create(&error));
    QCOMPARE(error, u"Failed to run the program \"openssl\": no randomness"_s);
}

void TestCertificateFiles::filesOfAFailedRunStay()
{
    replaceOpenssl("echo half > \"$7\"; exit 1\n");
    QString error;
    QVERIFY(!create(&error));
    QCOMPARE(contentOf(keyPath()), "half\n"_ba);
    QVERIFY(!QFile::exists(certificatePath()));
}

void TestCertificateFiles::createdFilesAreRemoved()
{
    replaceOpenssl("echo new > \"$7\"; echo new > \"$9\"\n");
    putFile(keyPath(), "old");
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    files->removeCreated();
    QVERIFY(!QFile::exists(certificatePath()));
    QVERIFY(!QFile::exists(keyPath()));
}

void TestCertificateFiles::filesThatOpensslDidNotWriteStay_data()
{
    QTest::addColumn<QByteArray>("certificate"); // before the run; null: no file
    QTest::addColumn<QByteArray>("script");
    QTest::newRow("certificate was there") << "old"_ba
                                           << "echo new > \"$7\"; echo new > \"$9\"\n"_ba;
    QTest::newRow("only the certificate is written") << QByteArray() << "echo new > \"$9\"\n"_ba;
    QTest::newRow("nothing is written") << QByteArray() << "exit 0\n"_ba;
}

void TestCertificateFiles::filesThatOpensslDidNotWriteStay()
{
    QFETCH(const QByteArray, certificate);
    QFETCH(const QByteArray, script);
    replaceOpenssl(script);
    putFile(keyPath(), "key");
    if (!certificate.isNull()) {
        putFile(certificatePath(), certificate);
    }
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    files->removeCreated();
    QCOMPARE(contentOf(keyPath()), "key"_ba);
    QCOMPARE(contentOf(certificatePath()), certificate);
}

void TestCertificateFiles::fileThatWasReplacedSinceStays_data()
{
    QTest::addColumn<bool>("isKey");
    QTest::newRow("certificate") << false;
    QTest::newRow("key") << true;
}

void TestCertificateFiles::fileThatWasReplacedSinceStays()
{
    QFETCH(const bool, isKey);
    replaceOpenssl("echo new > \"$7\"; echo new > \"$9\"\n");
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    const QString replaced = isKey ? keyPath() : certificatePath();
    putFile(replaced, "own\n"); // of the same size
    files->removeCreated();
    QCOMPARE(contentOf(replaced), "own\n"_ba);
    QVERIFY(!QFile::exists(isKey ? certificatePath() : keyPath()));
}

void TestCertificateFiles::fileThatWasOverwrittenSinceStays_data()
{
    QTest::addColumn<bool>("isTimeSetBack");
    QTest::newRow("modified later") << false;
    QTest::newRow("modification time set back") << true;
}

void TestCertificateFiles::fileThatWasOverwrittenSinceStays()
{
    QFETCH(const bool, isTimeSetBack);
    replaceOpenssl("echo new > \"$7\"; echo new > \"$9\"\n");
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    const struct stat before = stateOf(keyPath());
    const auto overwriteKey = [&] {
        overwrite(keyPath(), "own\n", isTimeSetBack ? &before.st_mtim : nullptr);
        const struct stat now = stateOf(keyPath());
        return now.st_ctim.tv_sec != before.st_ctim.tv_sec || now.st_ctim.tv_nsec != before.st_ctim.tv_nsec;
    };
    QVERIFY(QTest::qWaitFor(overwriteKey, 20000)); // the clock of the file system has ticked
    const struct stat after = stateOf(keyPath());
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_size, before.st_size);
    QCOMPARE(after.st_mtim.tv_sec == before.st_mtim.tv_sec && after.st_mtim.tv_nsec == before.st_mtim.tv_nsec,
             isTimeSetBack);
    files->removeCreated();
    QCOMPARE(contentOf(keyPath()), "own\n"_ba);
    QVERIFY(!QFile::exists(certificatePath()));
}

void TestCertificateFiles::symlinksStayAndTheirTargetsGo()
{
    const QString target = dir->filePath(u"elsewhere"_s);
    QVERIFY(QFile::link(target, certificatePath()));
    replaceOpenssl(": > \"$7\"; : > \"$9\"\n");
    QString error;
    QVERIFY2(create(&error), qPrintable(error));
    QVERIFY(QFile::exists(target));
    files->removeCreated();
    QVERIFY(!QFile::exists(target));
    QCOMPARE(QFile::symLinkTarget(certificatePath()), target);
}

ZARVO_TEST(TestCertificateFiles)

#include "tst_certificatefiles.moc"
