// SPDX-License-Identifier: MIT
#include "client/server/certificatepair.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace {

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using CertificatePtr = std::unique_ptr<X509, decltype(&X509_free)>;
using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

/** Supplies no pass phrase: without this, OpenSSL would ask on the terminal for that of an encrypted key. */
int noPassPhrase(char *, int, int, void *)
{
    return -1;
}

BioPtr memory(const QByteArray &text)
{
    return {BIO_new_mem_buf(text.constData(), static_cast<int>(text.size())), &BIO_free};
}

} // namespace

bool belongTogether(const QByteArray &certificateText, const QByteArray &keyText)
{
    const BioPtr certificateBio = memory(certificateText);
    const BioPtr keyBio = memory(keyText);
    const CertificatePtr certificate(PEM_read_bio_X509(certificateBio.get(), nullptr, noPassPhrase, nullptr),
                                     &X509_free);
    const KeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassPhrase, nullptr), &EVP_PKEY_free);
    return certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1;
}
