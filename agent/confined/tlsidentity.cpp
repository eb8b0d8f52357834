// SPDX-License-Identifier: MIT
// A key whose operations run elsewhere is an RSA_METHOD. OpenSSL 3 calls that deprecated in favour of a provider, which
// would be many times as much code.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "agent/confined/tlsidentity.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/packet.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>

#include <optional>

namespace {

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using RsaPtr = std::unique_ptr<RSA, decltype(&RSA_free)>;
using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

constexpr char kSuites[] = "ECDHE+AESGCM:ECDHE+CHACHA20";
/** Not the large groups of OpenSSL's default list, with which a visitor could make us compute for long. */
constexpr char kGroups[] = "X25519:P-256";

/** Called by OpenSSL for the one signature of a handshake. */
int signRemotely(int length, const unsigned char *bytes, unsigned char *signature, RSA *rsa, int padding)
{
    const auto *const control = static_cast<const int *>(RSA_get_app_data(rsa));
    const SignaturePadding kind = padding == RSA_PKCS1_PADDING ? SignaturePadding::Pkcs1 : SignaturePadding::None;
    std::string packet = {DoorPacket::kSign, static_cast<char>(kind)};
    packet.append(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(length));
    if (!sendPacket(*control, packet)) {
        return -1;
    }
    const std::optional<std::string> answer = receivePacket(*control);
    if (!answer || answer->front() != DoorPacket::kSignature ||
        answer->size() != 1 + static_cast<std::size_t>(RSA_size(rsa))) {
        return -1;
    }
    answer->copy(reinterpret_cast<char *>(signature), answer->size() - 1, 1);
    return RSA_size(rsa);
}

const RSA_METHOD *remoteMethod()
{
    static const RSA_METHOD *const method = [] {
        RSA_METHOD *const made = RSA_meth_dup(RSA_PKCS1_OpenSSL());
        RSA_meth_set_priv_enc(made, signRemotely);
        RSA_meth_set_flags(made, RSA_meth_get_flags(made) | RSA_FLAG_EXT_PKEY | RSA_METHOD_FLAG_NO_CHECK);
        return made;
    }();
    return method;
}

/** A key with the public part of @p certificate's key. */
KeyPtr remoteKey(const X509 *certificate, const int *control)
{
    KeyPtr key(EVP_PKEY_new(), &EVP_PKEY_free);
    RsaPtr rsa(RSA_new(), &RSA_free);
    const RSA *const published = EVP_PKEY_get0_RSA(X509_get0_pubkey(certificate));
    if (!key || !rsa || published == nullptr) {
        return {nullptr, &EVP_PKEY_free};
    }
    RSA_set_method(rsa.get(), remoteMethod());
    RSA_set_app_data(rsa.get(), const_cast<int *>(control));
    RSA_set0_key(rsa.get(), BN_dup(RSA_get0_n(published)), BN_dup(RSA_get0_e(published)), nullptr);
    EVP_PKEY_assign_RSA(key.get(), rsa.release());
    return key;
}

} // namespace

void SslContextDeleter::operator()(SSL_CTX *context) const
{
    SSL_CTX_free(context);
}

void SslDeleter::operator()(SSL *ssl) const
{
    SSL_free(ssl);
}

TlsIdentity::~TlsIdentity()
{
    X509_free(certificate);
}

std::unique_ptr<TlsIdentity> TlsIdentity::fromPem(std::string_view pem)
{
    std::unique_ptr<TlsIdentity> made(new TlsIdentity);
    const BioPtr text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    made->certificate = PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr);
    if (made->certificate == nullptr || EVP_PKEY_get0_RSA(X509_get0_pubkey(made->certificate)) == nullptr) {
        return nullptr;
    }
    made->context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX *const context = made->context.get();
    // No tickets: no connection is ever resumed, and some viewers hang when a ticket follows the handshake.
    const bool isSet = context != nullptr && SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
                       SSL_CTX_set_cipher_list(context, kSuites) == 1 &&
                       SSL_CTX_set1_groups_list(context, kGroups) == 1 && SSL_CTX_set_num_tickets(context, 0) == 1;
    if (!isSet) {
        return nullptr;
    }
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context,
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    return made;
}

SslPtr TlsIdentity::newConnection(int socket, const int *control) const
{
    SslPtr ssl(SSL_new(context.get()));
    const KeyPtr key = remoteKey(certificate, control);
    if (!ssl || !key || SSL_use_certificate(ssl.get(), certificate) != 1 ||
        SSL_use_PrivateKey(ssl.get(), key.get()) != 1 || SSL_set_fd(ssl.get(), socket) != 1) {
        return nullptr;
    }
    SSL_set_accept_state(ssl.get());
    return ssl;
}
