// SPDX-License-Identifier: MIT
#include "client/server/serverprocess.h"
#include "tests/client/doctorinput.h"
#include "tests/client/impostor.h"
#include "tests/helpers/environmentvariable.h"
#include "tests/helpers/files.h"
#include "tests/testmain.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <QDateTime>
#include <QHostAddress>
#include <QTcpServer>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>

#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

constexpr long kDay = 24 * 60 * 60;

QByteArray pem(const std::function<int(BIO *)> &write)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
    char *text = nullptr;
    const bool isWritten = write(bio.get()) == 1;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return isWritten ? QByteArray(text, length) : QByteArray();
}

QByteArray keyText(const Key &key)
{
    return pem(
        [&key](BIO *bio) { return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
}

/** A self-signed certificate; its validity begins and ends the given numbers of seconds from now. */
QByteArray certificateText(const Key &key, long from, long until)
{
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), from);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), until);
    X509_set_pubkey(certificate.get(), key.get());
    X509_sign(certificate.get(), key.get(), EVP_sha256());
    return pem([&certificate](BIO *bio) { return PEM_write_bio_X509(bio, certificate.get()); });
}

QString dateIn(long seconds)
{
    return QDateTime::currentDateTimeUtc().addSecs(seconds).toString(u"yyyy-MM-dd"_s);
}

} // namespace

class TestDoctorFiles : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        ::prctl(PR_SET_NAME, "zarvo_server");
        user = std::make_unique<EnvironmentVariable>("USER", "tst_doctorfiles-" + QByteArray::number(::getpid()));
    }
    void cleanupTestCase() { user.reset(); }

    void userPathModeIsChecked_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("found");
        QTest::newRow("private") << 0700 << u"OK \"%1\" is private"_s;
        QTest::newRow("readable") << 0750 << u"WARN \"%1\" is open to others (mode 0750)"_s;
        QTest::newRow("enterable") << 0701 << u"WARN \"%1\" is open to others (mode 0701)"_s;
        QTest::newRow("no write permission") << 0500 << u"FAIL \"%1\" has mode 0500, which denies its owner access"_s;
    }
    void userPathModeIsChecked()
    {
        QFETCH(int, mode);
        QFETCH(QString, found);
        const DoctorSurroundings surroundings;
        const QString path = surroundings.path("zarvo/host");
        QCOMPARE(::chmod(QFile::encodeName(path).constData(), static_cast<mode_t>(mode)), 0);
        const QList<Finding> findings = checkUserPath(surroundings.input());
        QCOMPARE(texts(findings), QStringList{found.arg(path)});
        QVERIFY(haveRemedies(findings));
    }

    void relativeUserPathIsAWarning()
    {
        const DoctorSurroundings surroundings;
        DoctorInput input = surroundings.input();
        input.settings.userPath = u"zarvo/host"_s;
        const QList<Finding> findings = checkUserPath(input);
        QCOMPARE(texts(findings), QStringList{u"WARN \"zarvo/host\" is relative: it means \"%1\""_s.arg(
                                      surroundings.path("zarvo/host"))});
        QVERIFY(haveRemedies(findings));
    }

    void userPathThatCannotBeCreatedIsAFailure()
    {
        const DoctorSurroundings surroundings;
        DoctorInput input = surroundings.input();
        input.files = ServerFiles(surroundings.path("file/a/b"));
        QCOMPARE(texts(checkUserPath(input)),
                 QStringList{u"OK \"%1\" is created at the first start"_s.arg(surroundings.path("file/a/b"))});
        putFile(surroundings.path("file"), "");
        QCOMPARE(texts(checkUserPath(input)),
                 QStringList{u"FAIL \"%1\" cannot be created: \"%2\" is not a writable directory"_s.arg(
                     surroundings.path("file/a/b"), surroundings.path("file"))});
        QVERIFY(haveRemedies(checkUserPath(input)));
        if (::geteuid() == 0) {
            return; // root may create it anywhere
        }
        QVERIFY(QDir(surroundings.path("zarvo")).mkdir(u"closed"_s));
        QVERIFY(QFile::setPermissions(surroundings.path("zarvo/closed"), QFileDevice::ReadOwner));
        input.files = ServerFiles(surroundings.path("zarvo/closed/host"));
        QVERIFY(texts(checkUserPath(input)).first().startsWith("FAIL"_L1));
    }

    void missingCertificateIsAFailureWhileAServerRuns()
    {
        const DoctorSurroundings surroundings;
        putFile(surroundings.path("zarvo/host/server_pid"), QByteArray::number(::getpid()));
        putFile(surroundings.path("zarvo/host/server_port"), "1");
        const QList<Finding> findings = checkCertificate(surroundings.input());
        QCOMPARE(texts(findings),
                 QStringList{u"FAIL There is no \"%1\", so nobody can connect to the running server"_s.arg(
                     surroundings.path("zarvo/server_cert"))});
        QVERIFY(haveRemedies(findings));
    }

    void listenPortOfAnotherProgramIsAFailure()
    {
        const DoctorSurroundings surroundings;
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress(QHostAddress::AnyIPv4)));
        DoctorInput input = surroundings.input();
        input.settings.listenPort = other.serverPort();
        const QList<Finding> findings = checkServerProcess(input);
        const QString text = texts(findings).join(u'\n');
        QVERIFY2(text.contains(u"\nFAIL ListenPort %1 is not available"_s.arg(other.serverPort())), qPrintable(text));
        QVERIFY(haveRemedies(findings));
        other.close();
        QCOMPARE(texts(checkServerProcess(input)),
                 QStringList{u"OK No server is running; zarvoctl starts one when needed"_s});
    }

    void userPathThatIsNoDirectoryIsAFailure()
    {
        const DoctorSurroundings surroundings;
        DoctorInput input = surroundings.input();
        input.files = ServerFiles(surroundings.path("missing"));
        QCOMPARE(texts(checkUserPath(input)),
                 QStringList{u"OK \"%1\" is created at the first start"_s.arg(surroundings.path("missing"))});
        putFile(surroundings.path("missing"), "");
        QCOMPARE(texts(checkUserPath(input)),
                 QStringList{u"FAIL \"%1\" is not a directory"_s.arg(surroundings.path("missing"))});
    }

    void certificateDatesAreChecked_data()
    {
        QTest::addColumn<int>("fromDays");
        QTest::addColumn<int>("untilDays");
        QTest::addColumn<QString>("found");
        QTest::newRow("valid") << -1 << 100 << u"OK It is valid until %2"_s;
        QTest::newRow("expires soon") << -1 << 29 << u"WARN It expires on %2"_s;
        QTest::newRow("expired")
            << -10 << -2
            << u"WARN It expired on %2; everything still works, because certificates are only compared for equality"_s;
        QTest::newRow("not yet valid") << 3 << 100 << u"WARN It is valid from %1 on"_s;
    }
    void certificateDatesAreChecked()
    {
        QFETCH(int, fromDays);
        QFETCH(int, untilDays);
        QFETCH(QString, found);
        const DoctorSurroundings surroundings;
        const Key key(EVP_RSA_gen(2048), &EVP_PKEY_free);
        putKey(surroundings, keyText(key));
        putFile(surroundings.path("zarvo/server_cert"), certificateText(key, fromDays * kDay, untilDays * kDay));
        found.replace(u"%1"_s, dateIn(fromDays * kDay)).replace(u"%2"_s, dateIn(untilDays * kDay));
        const QList<Finding> findings = checkCertificate(surroundings.input());
        QCOMPARE(texts(findings), (QStringList{found, u"OK Certificate and key belong together"_s}));
        QVERIFY(haveRemedies(findings));
    }

    void unusableCertificateFilesAreFailures()
    {
        const DoctorSurroundings surroundings;
        const DoctorInput input = surroundings.input();
        const auto found = [&input] {
            const QList<Finding> findings = checkCertificate(input);
            return haveRemedies(findings) ? texts(findings).last() : u"no remedy"_s;
        };
        QCOMPARE(found(), u"OK It is created at the first start"_s);

        const Key key(EVP_RSA_gen(2048), &EVP_PKEY_free);
        const Key other(EVP_RSA_gen(2048), &EVP_PKEY_free);
        const QString certificatePath = surroundings.path("zarvo/server_cert");
        putFile(certificatePath, certificateText(key, 0, 100 * kDay));
        QVERIFY2(found().startsWith(u"FAIL Failed to open the file"_s), qPrintable(found()));
        putKey(surroundings, keyText(other));
        QCOMPARE(found(), u"FAIL Certificate and key do not belong together"_s);
        putKey(surroundings, "no key");
        QCOMPARE(found(), u"FAIL Certificate and key do not belong together"_s);
        putKey(surroundings, keyText(key));
        QCOMPARE(found(), u"OK Certificate and key belong together"_s);
        const QString keyPath = surroundings.path("zarvo/server_key");
        QCOMPARE(::chmod(QFile::encodeName(keyPath).constData(), 0640), 0);
        QCOMPARE(found(), u"WARN \"%1\" is open to others (mode 0640)"_s.arg(keyPath));
        putFile(certificatePath, "no certificate");
        QCOMPARE(found(), u"FAIL \"%1\" holds no certificate"_s.arg(certificatePath));
    }

    void untrustedFolderIsAFailureBeforeThereIsAPair()
    {
        const DoctorSurroundings surroundings;
        putFile(surroundings.path("zarvo/another"), "");
        const QString folder = surroundings.path("zarvo");
        QCOMPARE(::chmod(QFile::encodeName(folder).constData(), 0777), 0);
        const QList<Finding> findings = checkCertificate(surroundings.input());
        QCOMPARE(texts(findings).size(), 1);
        QVERIFY(texts(findings).first().startsWith(u"FAIL "_s));
        QVERIFY(texts(findings).first().contains(u"others can write to \"%1\""_s.arg(folder)));
        QVERIFY(haveRemedies(findings));
        QCOMPARE(::chmod(QFile::encodeName(folder).constData(), 0700), 0);
        QCOMPARE(texts(checkCertificate(surroundings.input())), QStringList{u"OK It is created at the first start"_s});
    }

    void pairThatOthersCanReplaceIsAFailure()
    {
        const DoctorSurroundings surroundings;
        const Key key(EVP_RSA_gen(2048), &EVP_PKEY_free);
        putKey(surroundings, keyText(key));
        putFile(surroundings.path("zarvo/server_cert"), certificateText(key, 0, 100 * kDay));
        const QString folder = surroundings.path("zarvo");
        QCOMPARE(::chmod(QFile::encodeName(folder).constData(), 0777), 0);
        const QList<Finding> findings = checkCertificate(surroundings.input());
        QCOMPARE(texts(findings),
                 QStringList{u"FAIL The file \"%1/server_key\" is not used: others can write to \"%1\" "
                             "(mode 0777)"_s.arg(folder)});
        QVERIFY(haveRemedies(findings));
    }

    void stateOfTheServerIsReported()
    {
        const DoctorSurroundings surroundings;
        const DoctorInput input = surroundings.input();
        const auto found = [&input] {
            const QList<Finding> findings = checkServerProcess(input);
            return haveRemedies(findings) ? texts(findings).join(u'\n') : u"no remedy"_s;
        };
        QCOMPARE(found(), u"OK No server is running; zarvoctl starts one when needed"_s);
        putFile(surroundings.path("zarvo/host/server_pid"), QByteArray::number(::getpid()));
        QVERIFY2(found().contains(u"WARN The server, process %1, has not written its port yet"_s.arg(::getpid())),
                 qPrintable(found()));
        putFile(surroundings.path("zarvo/host/server_port"), "x");
        QVERIFY2(found().startsWith("FAIL The file"_L1), qPrintable(found()));
        putFile(surroundings.path("zarvo/host/server_port"), "1"); // no program listens on it
        QVERIFY2(found().startsWith("FAIL The server is process"_L1), qPrintable(found()));
        QVERIFY2(!found().endsWith(u'.'), qPrintable(found())); // the report adds the full stop before the remedy
        putFile(surroundings.path("zarvo/host/server_pid"), "999999999");
        QVERIFY2(found().startsWith("WARN The server has ended without removing its files"_L1), qPrintable(found()));
    }

    void serverWithOtherFilesIsReported()
    {
        const DoctorSurroundings surroundings;
        const QString name = qEnvironmentVariable("USER");
        const Impostor impostor(serverEnvironment(name, u"/"_s));
        const QString text = u"FAIL A server of USER=%1 already runs with other files: process %2, whose HOME is "
                             "\"/home/of/it\""_s.arg(name, QString::number(impostor.pid()));
        QTRY_COMPARE(texts(checkServerProcess(surroundings.input())).join(u'\n'), text);
        QVERIFY(haveRemedies(checkServerProcess(surroundings.input())));
        putFile(surroundings.path("zarvo/host/server_port"), "1"); // stale, of another server
        QCOMPARE(texts(checkServerProcess(surroundings.input())).join(u'\n'), text);
    }

    void serverGetsTimeToWriteItsFiles()
    {
        const DoctorSurroundings surroundings;
        DoctorInput input = surroundings.input();
        input.settlingTime = 60s;
        const Impostor impostor(serverEnvironment(qEnvironmentVariable("USER"), u"/"_s));
        QTRY_VERIFY(serversOfSameUser().contains(impostor.pid()));
        QTimer::singleShot(100ms, this, [&surroundings, &impostor] {
            putFile(surroundings.path("zarvo/host/server_pid"), QByteArray::number(impostor.pid()));
        });
        QCOMPARE(texts(checkServerProcess(input)),
                 QStringList{u"WARN The server, process %1, has not written its port yet"_s.arg(impostor.pid())});
    }

    void serverGetsTimeToEnd()
    {
        const DoctorSurroundings surroundings;
        DoctorInput input = surroundings.input();
        input.settlingTime = 60s;
        auto impostor = std::make_unique<Impostor>(serverEnvironment(qEnvironmentVariable("USER"), u"/"_s));
        QTRY_VERIFY(serversOfSameUser().contains(impostor->pid()));
        QTimer::singleShot(100ms, this, [&impostor] { impostor.reset(); });
        QCOMPARE(texts(checkServerProcess(input)),
                 QStringList{u"OK No server is running; zarvoctl starts one when needed"_s});
    }

    void pidFileThatIsADirectoryIsAFailure()
    {
        const DoctorSurroundings surroundings;
        QVERIFY(QDir().mkdir(surroundings.path("zarvo/host/server_pid")));
        const QList<Finding> findings = checkServerProcess(surroundings.input());
        QVERIFY2(texts(findings).join(u'\n').startsWith("FAIL Failed to open the file"_L1),
                 qPrintable(texts(findings).join(u'\n')));
        QCOMPARE(findings.first().remedy, u"Remove it and start the server"_s);
    }

private:
    std::unique_ptr<EnvironmentVariable> user;

    static void putKey(const DoctorSurroundings &surroundings, const QByteArray &text)
    {
        const QString path = surroundings.path("zarvo/server_key");
        putFile(path, text);
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }
};

ZARVO_TEST(TestDoctorFiles)
#include "tst_doctorfiles.moc"
