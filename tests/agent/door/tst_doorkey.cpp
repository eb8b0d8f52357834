// SPDX-License-Identifier: MIT
#include "agent/door/doorkey.h"
#include "tests/agent/testlog.h"
#include "tests/helpers/tlspair.h"
#include "tests/testmain.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>
#include <optional>
#include <string>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class DoorKeyTest final : public QObject
{
    Q_OBJECT

private:
    const TlsPair first = TlsPair::make();
    const TlsPair second = TlsPair::make();
    QTemporaryDir directory;
    std::unique_ptr<TestLog> log;
    std::unique_ptr<DoorKey> key;

    QString certificatePath() const { return directory.filePath(u"certificate"_s); }
    QString keyPath() const { return directory.filePath(u"key"_s); }

    void put(const TlsPair &certificate, const TlsPair &keyOf) const
    {
        putFile(certificatePath(), certificate.certificatePem);
        putFile(keyPath(), keyOf.keyPem);
    }

    /** What a server of TLS 1.3 signs. */
    static HandshakeSignature request()
    {
        return {true, 256,
                std::string(64, ' ') + std::string("TLS 1.3, server CertificateVerify\0", 34) + std::string(32, 'h')};
    }

    /** Signs and waits for the result. */
    std::string sign(const HandshakeSignature &wanted = request())
    {
        const auto interest = std::make_shared<int>(0);
        std::optional<std::string> result;
        key->sign(wanted, interest, [&result](const std::string &signature) {
            QVERIFY(QThread::currentThread() == QCoreApplication::instance()->thread());
            result = signature;
        });
        [[maybe_unused]] const bool isDone = QTest::qWaitFor([&result] { return result.has_value(); }, 30000);
        return result.value_or("no result");
    }

    static bool isSignedBy(const TlsPair &pair, const std::string &signature)
    {
        const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
        EVP_PKEY_CTX *keyContext = nullptr;
        const std::string content = request().content;
        return EVP_DigestVerifyInit(context.get(), &keyContext, EVP_sha256(), nullptr, pair.key.get()) == 1 &&
               EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1 &&
               EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char *>(signature.data()),
                                signature.size(), reinterpret_cast<const unsigned char *>(content.data()),
                                content.size()) == 1;
    }

private slots:
    void init()
    {
        QFile::remove(certificatePath());
        QFile::remove(keyPath());
        log = std::make_unique<TestLog>();
        key = std::make_unique<DoorKey>(certificatePath(), keyPath());
    }

    void cleanup()
    {
        key.reset();
        log.reset();
    }

    void pairIsRead()
    {
        put(first, first);
        QVERIFY(key->refresh());
        QCOMPARE(key->certificatePem(), first.certificatePem);
        QVERIFY(!key->refresh()); // nothing has changed since
        QVERIFY(log->lines.isEmpty());
    }

    // The file of the certificate may hold the key as well.
    void certificateAloneIsShown()
    {
        putFile(certificatePath(), first.keyPem + first.certificatePem + second.certificatePem);
        putFile(keyPath(), first.keyPem);
        QVERIFY(key->refresh());
        QCOMPARE(key->certificatePem(), first.certificatePem);
    }

    void replacedPairIsReadAgain()
    {
        put(first, first);
        QVERIFY(key->refresh());
        put(second, second);
        QVERIFY(key->refresh());
        QCOMPARE(key->certificatePem(), second.certificatePem);
        QVERIFY(isSignedBy(second, sign()));
    }

    // Whoever replaces the pair replaces one file first.
    void halfAReplacedPairIsNone()
    {
        put(first, first);
        QVERIFY(key->refresh());
        putFile(certificatePath(), second.certificatePem);
        QVERIFY(key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(sign(), std::string());
        putFile(keyPath(), second.keyPem);
        QVERIFY(key->refresh());
        QCOMPARE(key->certificatePem(), second.certificatePem);
    }

    void removedPairIsForgotten()
    {
        put(first, first);
        QVERIFY(key->refresh());
        QFile::remove(keyPath());
        QVERIFY(key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(sign(), std::string());
    }

    void missingPairIsToldOnce()
    {
        putFile(certificatePath(), first.certificatePem);
        QVERIFY(!key->refresh());
        QVERIFY(!key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(log->lines.size(), 1);
        QVERIFY(log->lines.first().startsWith(u"Warning: Viewers get no TLS: "_s));
        QVERIFY(log->lines.first().contains(keyPath()));
    }

    void fileThatOthersCanWriteIsRefused()
    {
        put(first, first);
        for (const QString &path : {certificatePath(), keyPath()}) {
            QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::WriteOther));
            QVERIFY(!key->refresh());
            QVERIFY(key->certificatePem().isEmpty());
            QVERIFY(log->lines.last().contains(path));
            QVERIFY(QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner));
        }
        QVERIFY(key->refresh());
    }

    void keyOfAnotherCertificateIsRefused()
    {
        put(first, second);
        QVERIFY(!key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(log->lines,
                 QStringList{u"Warning: Viewers get no TLS: the certificate and the key do not belong together"_s});
    }

    void textThatIsNoPairIsRefused_data()
    {
        QTest::addColumn<QByteArray>("certificate");
        QTest::addColumn<QByteArray>("keyText");
        QTest::newRow("empty") << QByteArray() << QByteArray();
        QTest::newRow("text") << QByteArray("text") << QByteArray("text");
        QTest::newRow("swapped") << first.keyPem << first.certificatePem;
        QTest::newRow("half a key") << first.certificatePem << first.keyPem.first(first.keyPem.size() / 2);
    }

    void textThatIsNoPairIsRefused()
    {
        QFETCH(QByteArray, certificate);
        QFETCH(QByteArray, keyText);
        putFile(certificatePath(), certificate);
        putFile(keyPath(), keyText);
        QVERIFY(!key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(log->lines.size(), 1);
    }

    // Nobody could enter its pass phrase.
    void encryptedKeyIsRefusedWithoutAQuestion()
    {
        const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), &BIO_free);
        QCOMPARE(PEM_write_bio_PrivateKey(text.get(), first.key.get(), EVP_aes_128_cbc(), nullptr, 0, nullptr,
                                          const_cast<char *>("secret")),
                 1);
        char *bytes = nullptr;
        const long length = BIO_get_mem_data(text.get(), &bytes);
        putFile(certificatePath(), first.certificatePem);
        putFile(keyPath(), QByteArray(bytes, length));
        QVERIFY(!key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
    }

    void keyWithoutPathsHasNoPair()
    {
        DoorKey none({}, {});
        QVERIFY(!none.refresh());
        QVERIFY(none.certificatePem().isEmpty());
        QVERIFY(log->lines.isEmpty());
    }

    void serversHandshakeIsSigned()
    {
        put(first, first);
        QVERIFY(key->refresh());
        QVERIFY(isSignedBy(first, sign()));
        QVERIFY(!isSignedBy(second, sign()));
    }

    // With a client's signature an attacker could log in at the server.
    void clientsHandshakeIsNotSigned()
    {
        put(first, first);
        QVERIFY(key->refresh());
        HandshakeSignature wanted = request();
        wanted.content.replace(wanted.content.find("server"), 6, "client");
        QCOMPARE(sign(wanted), std::string());
    }

    void signatureThatNobodyWantsIsNotTold()
    {
        put(first, first);
        QVERIFY(key->refresh());
        auto interest = std::make_shared<int>(0);
        bool isCalled = false;
        key->sign(request(), interest, [&isCalled](const std::string &) { isCalled = true; });
        interest.reset();
        QVERIFY(isSignedBy(first, sign())); // signed after it
        QVERIFY(!isCalled);
    }

    void destroyedKeyCallsNobody()
    {
        put(first, first);
        QVERIFY(key->refresh());
        const auto interest = std::make_shared<int>(0);
        bool isCalled = false;
        for (int i = 0; i < 20; ++i) {
            key->sign(request(), interest, [&isCalled](const std::string &) { isCalled = true; });
        }
        key.reset();
        QCoreApplication::processEvents();
        QVERIFY(!isCalled);
    }

    void pipeInPlaceOfTheKeyIsRefused()
    {
        putFile(certificatePath(), first.certificatePem);
        QCOMPARE(::mkfifo(QFile::encodeName(keyPath()).constData(), 0600), 0);
        QVERIFY(!key->refresh());
        QVERIFY(log->lines.last().contains(u"Not a regular file"_s));
        QFile::remove(keyPath());
    }
};

ZARVO_TEST(DoorKeyTest)
#include "tst_doorkey.moc"
