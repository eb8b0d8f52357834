// SPDX-License-Identifier: MIT
// A key whose operations run elsewhere is an RSA_METHOD with an EVP_PKEY_METHOD. OpenSSL 3 calls these deprecated in
// favour of a provider, which would be many times as much code.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "agent/confined/tlsidentity.h"

#include "agent/confined/doorpackets.h"
#include "agent/confined/handshakesignature.h"
#include "agent/confined/packet.h"

#include <openssl/evp.h>
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

int hashBitsOf(EVP_MD_CTX *context)
{
    return EVP_MD_get_size(EVP_MD_CTX_get0_md(context)) * 8;
}

/** Asks the agent for the signature. */
std::string askForSignature(int control, const HandshakeSignature &request)
{
    if (!sendPacket(control, request.toPacket())) {
        return {};
    }
    const std::optional<std::string> answer = receivePacket(control);
    return answer && answer->front() == DoorPacket::kSignature ? answer->substr(1) : std::string();
}

/**
 * Called by OpenSSL for each RSA signature of this process, with what is to be signed, and with no @p signature to ask
 * for the length. Only our own keys have a control socket.
 */
int signRemotely(EVP_MD_CTX *context, unsigned char *signature, size_t *length, const unsigned char *bytes,
                 size_t byteCount)
{
    EVP_PKEY_CTX *const keyContext = EVP_MD_CTX_get_pkey_ctx(context);
    EVP_PKEY *const key = EVP_PKEY_CTX_get0_pkey(keyContext);
    *length = static_cast<size_t>(EVP_PKEY_get_size(key));
    if (signature == nullptr) {
        return 1;
    }
    int padding = 0;
    EVP_PKEY_CTX_get_rsa_padding(keyContext, &padding);
    const bool isPss = padding == RSA_PKCS1_PSS_PADDING;
    const std::string content(reinterpret_cast<const char *>(bytes), byteCount);
    const auto *const control = static_cast<const int *>(RSA_get_app_data(EVP_PKEY_get0_RSA(key)));
    const std::string result = control != nullptr ? askForSignature(*control, {isPss, hashBitsOf(context), content})
                                                  : rsaSignature(key, EVP_MD_CTX_get0_md(context), isPss, content);
    if (result.size() != *length) {
        return 0;
    }
    result.copy(reinterpret_cast<char *>(signature), *length);
    return 1;
}

int signNothing(int, const unsigned char *, unsigned char *, RSA *, int)
{
    return -1;
}

/** A method of our own makes OpenSSL use the table that useRemoteSignatures() has changed. */
const RSA_METHOD *remoteMethod()
{
    static const RSA_METHOD *const method = [] {
        RSA_METHOD *const made = RSA_meth_dup(RSA_PKCS1_OpenSSL());
        RSA_meth_set_priv_enc(made, signNothing);
        RSA_meth_set_flags(made, RSA_meth_get_flags(made) | RSA_FLAG_EXT_PKEY | RSA_METHOD_FLAG_NO_CHECK);
        return made;
    }();
    return method;
}

/** For keys with a method of their own: signatures are made from the content, and not from its hash. */
bool useRemoteSignatures()
{
    static const bool isDone = [] {
        EVP_PKEY_METHOD *const made = EVP_PKEY_meth_new(EVP_PKEY_RSA, 0);
        const EVP_PKEY_METHOD *const usual = EVP_PKEY_meth_find(EVP_PKEY_RSA);
        if (made == nullptr || usual == nullptr) {
            return false;
        }
        EVP_PKEY_meth_copy(made, usual);
        EVP_PKEY_meth_set_digestsign(made, signRemotely);
        return EVP_PKEY_meth_add0(made) == 1;
    }();
    return isDone;
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
    if (!useRemoteSignatures() || made->certificate == nullptr ||
        EVP_PKEY_get0_RSA(X509_get0_pubkey(made->certificate)) == nullptr) {
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
