// SPDX-License-Identifier: MIT
#include "agent/door/doorkey.h"

#include "base/logging.h"
#include "support/filereader.h"
#include "support/pathtrust.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <QFile>
#include <QPointer>

#include <utility>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using CertificatePtr = std::unique_ptr<X509, decltype(&X509_free)>;
using ContextPtr = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

constexpr int kMaxFileBytes = 1024 * 1024;

/** Supplies no pass phrase: without this, OpenSSL would ask on the terminal for that of an encrypted key. */
int noPassPhrase(char *, int, int, void *)
{
    return -1;
}

BioPtr memory(const QByteArray &text)
{
    return {BIO_new_mem_buf(text.constData(), static_cast<int>(text.size())), &BIO_free};
}

/** Reads a file that nobody else can have written or replaced. */
bool readTrusted(const QString &path, QByteArray *text, QString *error)
{
    FoundPath found;
    return followTrustedPath(path, &found, error) == PathTrust::Trusted &&
           readFile(QFile::decodeName(found.path), kMaxFileBytes, text, error);
}

QByteArray signature(EVP_PKEY *key, const QByteArray &bytes, bool isPadded)
{
    const ContextPtr context(EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free);
    size_t length = static_cast<size_t>(EVP_PKEY_get_size(key));
    QByteArray result(static_cast<qsizetype>(length), Qt::Uninitialized);
    const bool isSigned =
        context && EVP_PKEY_sign_init(context.get()) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context.get(), isPadded ? RSA_NO_PADDING : RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char *>(result.data()), &length,
                      reinterpret_cast<const unsigned char *>(bytes.constData()),
                      static_cast<size_t>(bytes.size())) == 1;
    ERR_clear_error();
    return isSigned ? result.first(static_cast<qsizetype>(length)) : QByteArray();
}

} // namespace

DoorKey::DoorKey(QString certificatePath_, QString keyPath_, QObject *parent)
    : QObject(parent)
    , certificatePath(std::move(certificatePath_))
    , keyPath(std::move(keyPath_))
{
    signers.setMaxThreadCount(1);
}

DoorKey::~DoorKey()
{
    signers.clear();
    signers.waitForDone();
}

bool DoorKey::refresh()
{
    if (certificatePath.isEmpty()) {
        return false;
    }
    const Stamp newCertificate = stampOf(certificatePath);
    const Stamp newKey = stampOf(keyPath);
    if (newCertificate == certificateStamp && newKey == keyStamp) {
        return false;
    }
    certificateStamp = newCertificate;
    keyStamp = newKey;
    const QByteArray before = certificate;
    load();
    return certificate != before;
}

/** Leaves no pair when anything is wrong: half of the old one and half of the new one would fail each handshake. */
void DoorKey::load()
{
    certificate.clear();
    key.reset();
    QByteArray certificateText;
    QByteArray keyText;
    QString error;
    if (!readTrusted(keyPath, &keyText, &error) || !readTrusted(certificatePath, &certificateText, &error)) {
        logMessage(LogWarning, u"Viewers get no TLS: %1"_s.arg(error));
        return;
    }
    const CertificatePtr x509(PEM_read_bio_X509(memory(certificateText).get(), nullptr, &noPassPhrase, nullptr),
                              &X509_free);
    const std::shared_ptr<EVP_PKEY> pkey(
        PEM_read_bio_PrivateKey(memory(keyText).get(), nullptr, &noPassPhrase, nullptr), &EVP_PKEY_free);
    if (!x509 || !pkey || X509_check_private_key(x509.get(), pkey.get()) != 1) {
        ERR_clear_error();
        logMessage(LogWarning, u"Viewers get no TLS: the certificate and the key do not belong together"_s);
        return;
    }
    // Written again, because the file may hold more than the certificate.
    const BioPtr text(BIO_new(BIO_s_mem()), &BIO_free);
    PEM_write_bio_X509(text.get(), x509.get());
    char *bytes = nullptr;
    const long length = BIO_get_mem_data(text.get(), &bytes);
    certificate = QByteArray(bytes, length);
    key = pkey;
}

void DoorKey::sign(const QByteArray &bytes, bool isPadded, QObject *context, std::function<void(QByteArray)> done)
{
    if (!key) {
        done({});
        return;
    }
    signers.start([this, bytes, isPadded, signer = key, guard = QPointer(context), done = std::move(done)] {
        const QByteArray result = signature(signer.get(), bytes, isPadded);
        QMetaObject::invokeMethod(
            this,
            [result, guard, done] {
                if (guard) {
                    done(result);
                }
            },
            Qt::QueuedConnection);
    });
}

DoorKey::Stamp DoorKey::stampOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}
