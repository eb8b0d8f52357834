// SPDX-License-Identifier: MIT
#include "agent/door/doorkey.h"

#include "base/logging.h"
#include "support/filereader.h"
#include "support/pathtrust.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <QFile>

#include <chrono>
#include <utility>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using CertificatePtr = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr int kMaxFileBytes = 1024 * 1024;
/** How long a pair that cannot be used is not read again. */
constexpr std::chrono::milliseconds kRetryPause(5000);

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
    if (followTrustedPath(path, &found, error) != PathTrust::Trusted) {
        return false;
    }
    if (!S_ISREG(found.status.st_mode)) {
        *error = notRegularFileError(path); // opening a pipe would stop us for ever
        return false;
    }
    return readFile(QFile::decodeName(found.path), kMaxFileBytes, text, error);
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
    // What was wrong may have nothing to do with the files themselves, for example a folder above them.
    const bool mayRetry = sinceFailure.isValid() && sinceFailure.hasExpired(kRetryPause.count());
    if (newCertificate == certificateStamp && newKey == keyStamp && !mayRetry) {
        return false;
    }
    certificateStamp = newCertificate;
    keyStamp = newKey;
    const QByteArray before = std::exchange(certificate, {});
    key.reset();
    QString problem;
    if (load(&problem)) {
        sinceFailure.invalidate();
    } else {
        sinceFailure.start();
    }
    if (!problem.isEmpty() && problem != lastProblem) {
        logMessage(LogWarning, u"Viewers get no TLS: %1"_s.arg(problem));
    }
    lastProblem = problem;
    return certificate != before;
}

/** Leaves no pair when anything is wrong: half of the old one and half of the new one would fail each handshake. */
bool DoorKey::load(QString *error)
{
    QByteArray certificateText;
    QByteArray keyText;
    if (!readTrusted(keyPath, &keyText, error) || !readTrusted(certificatePath, &certificateText, error)) {
        return false;
    }
    const CertificatePtr x509(PEM_read_bio_X509(memory(certificateText).get(), nullptr, &noPassPhrase, nullptr),
                              &X509_free);
    const std::shared_ptr<EVP_PKEY> pkey(
        PEM_read_bio_PrivateKey(memory(keyText).get(), nullptr, &noPassPhrase, nullptr), &EVP_PKEY_free);
    const bool areTogether = x509 && pkey && X509_check_private_key(x509.get(), pkey.get()) == 1;
    ERR_clear_error();
    if (!areTogether) {
        *error = u"the certificate and the key do not belong together"_s;
        return false;
    }
    if (EVP_PKEY_get_base_id(pkey.get()) != EVP_PKEY_RSA) {
        *error = u"the key is no RSA key"_s;
        return false;
    }
    // Written again, because the file may hold more than the certificate.
    const BioPtr text(BIO_new(BIO_s_mem()), &BIO_free);
    PEM_write_bio_X509(text.get(), x509.get());
    char *bytes = nullptr;
    const long length = BIO_get_mem_data(text.get(), &bytes);
    certificate = QByteArray(bytes, length);
    key = pkey;
    return true;
}

void DoorKey::sign(const HandshakeSignature &request, std::weak_ptr<void> wanted,
                   std::function<void(const std::string &)> done)
{
    if (!key) {
        done({});
        return;
    }
    signers.start([this, request, wanted = std::move(wanted), signer = key, done = std::move(done)] {
        if (wanted.expired()) {
            return; // a flood leaves many that nobody waits for any more
        }
        const std::string signature = request.sign(signer.get());
        QMetaObject::invokeMethod(
            this,
            [signature, wanted, done] {
                if (!wanted.expired()) {
                    done(signature);
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
