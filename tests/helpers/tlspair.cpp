// SPDX-License-Identifier: MIT
#include "tests/helpers/tlspair.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace {

constexpr unsigned kKeyBits = 2048;
constexpr long kDaySeconds = 24 * 60 * 60;

template <typename Write>
QByteArray pem(Write write)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), &BIO_free);
    if (write(text.get()) != 1) {
        qFatal("Failed to write a test certificate or key");
    }
    char *bytes = nullptr;
    const long length = BIO_get_mem_data(text.get(), &bytes);
    return QByteArray(bytes, length);
}

} // namespace

TlsPair TlsPair::make()
{
    TlsPair pair;
    pair.key.reset(EVP_RSA_gen(kKeyBits), &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDaySeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kDaySeconds);
    X509_set_pubkey(certificate.get(), pair.key.get());
    if (X509_sign(certificate.get(), pair.key.get(), EVP_sha256()) == 0) {
        qFatal("Failed to make a test certificate");
    }
    pair.certificatePem = pem([&](BIO *text) { return PEM_write_bio_X509(text, certificate.get()); });
    pair.keyPem = pem([&](BIO *text) {
        return PEM_write_bio_PrivateKey(text, pair.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    return pair;
}
