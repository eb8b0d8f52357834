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

    /** Signs and waits for the result. */
    QByteArray sign(const QByteArray &bytes, bool isPadded)
    {
        std::optional<QByteArray> result;
        key->sign(bytes, isPadded, this, [&result](const QByteArray &signature) {
            QVERIFY(QThread::currentThread() == QCoreApplication::instance()->thread());
            result = signature;
        });
        [[maybe_unused]] const bool isDone = QTest::qWaitFor([&result] { return result.has_value(); }, 30000);
        return result.value_or("no result");
    }

    /** What @p signature was made of, by the public half of the key. */
    static QByteArray recovered(const TlsPair &pair, const QByteArray &signature, int padding)
    {
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
            EVP_PKEY_CTX_new(pair.key.get(), nullptr), &EVP_PKEY_CTX_free);
        QByteArray bytes(EVP_PKEY_get_size(pair.key.get()), Qt::Uninitialized);
        size_t length = static_cast<size_t>(bytes.size());
        const bool isDone =
            EVP_PKEY_verify_recover_init(context.get()) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) == 1 &&
            EVP_PKEY_verify_recover(context.get(), reinterpret_cast<unsigned char *>(bytes.data()), &length,
                                    reinterpret_cast<const unsigned char *>(signature.constData()),
                                    static_cast<size_t>(signature.size())) == 1;
        return isDone ? bytes.first(static_cast<qsizetype>(length)) : QByteArray();
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
        QCOMPARE(recovered(second, sign("text", false), RSA_PKCS1_PADDING), QByteArray("text"));
    }

    // Whoever replaces the pair replaces one file first.
    void halfAReplacedPairIsNone()
    {
        put(first, first);
        QVERIFY(key->refresh());
        putFile(certificatePath(), second.certificatePem);
        QVERIFY(key->refresh());
        QVERIFY(key->certificatePem().isEmpty());
        QCOMPARE(sign("text", false), QByteArray());
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
        QCOMPARE(sign("text", false), QByteArray());
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

    void bytesAreSignedBothWays()
    {
        put(first, first);
        QVERIFY(key->refresh());
        QCOMPARE(recovered(first, sign("a hash", false), RSA_PKCS1_PADDING), QByteArray("a hash"));
        QByteArray padded(256, 'p');
        padded[0] = '\0'; // below the modulus
        QCOMPARE(recovered(first, sign(padded, true), RSA_NO_PADDING), padded);
    }

    void bytesOfTheWrongLengthAreNotSigned()
    {
        put(first, first);
        QVERIFY(key->refresh());
        QCOMPARE(sign(QByteArray(255, '\0'), true), QByteArray());
        QCOMPARE(sign(QByteArray(257, '\0'), true), QByteArray());
        QCOMPARE(sign(QByteArray(246, 'x'), false), QByteArray()); // no room for the padding
        QCOMPARE(sign(QByteArray(245, 'x'), false).size(), 256);
    }

    void destroyedContextHearsNothing()
    {
        put(first, first);
        QVERIFY(key->refresh());
        auto context = std::make_unique<QObject>();
        bool isCalled = false;
        key->sign("text", false, context.get(), [&isCalled](const QByteArray &) { isCalled = true; });
        context.reset();
        QCOMPARE(sign("text", false).size(), 256); // signed after it
        QVERIFY(!isCalled);
    }

    void destroyedKeyCallsNobody()
    {
        put(first, first);
        QVERIFY(key->refresh());
        bool isCalled = false;
        for (int i = 0; i < 20; ++i) {
            key->sign("text", false, this, [&isCalled](const QByteArray &) { isCalled = true; });
        }
        key.reset();
        QCoreApplication::processEvents();
        QVERIFY(!isCalled);
    }
};

ZARVO_TEST(DoorKeyTest)
#include "tst_doorkey.moc"
