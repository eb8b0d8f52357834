// SPDX-License-Identifier: MIT
#include "client/reach/vncpasswordfile.h"

#include <openssl/evp.h>

#include <QByteArray>

#include <array>
#include <cerrno>
#include <memory>

#include <sys/mman.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kBlockBytes = 8;
constexpr int kKeys = 3;

/** Fixed by the file format; it hides the password from a glance and from nothing else. */
constexpr std::array<unsigned char, kBlockBytes> kFormatKey = {0xE8, 0x4A, 0xD6, 0x60, 0xC4, 0x72, 0x1A, 0xE0};

} // namespace

QByteArray scrambledVncPassword(const QString &password)
{
    const QByteArray block = password.toLatin1().leftJustified(kBlockBytes, '\0', true);
    std::array<unsigned char, kBlockBytes * kKeys> key{};
    for (size_t i = 0; i < key.size(); ++i) {
        key[i] = kFormatKey[i % kBlockBytes];
    }
    // Three times the same key is plain DES, which by itself belongs to a part of OpenSSL that may not be there.
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(),
                                                                                 &EVP_CIPHER_CTX_free);
    QByteArray scrambled(2 * kBlockBytes, '\0');
    int length = 0;
    if (!cipher || EVP_EncryptInit_ex(cipher.get(), EVP_des_ede3_ecb(), nullptr, key.data(), nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(cipher.get(), 0) != 1 ||
        EVP_EncryptUpdate(cipher.get(), reinterpret_cast<unsigned char *>(scrambled.data()), &length,
                          reinterpret_cast<const unsigned char *>(block.constData()), kBlockBytes) != 1 ||
        length != kBlockBytes) {
        return {};
    }
    return scrambled.first(kBlockBytes);
}

VncPasswordFile::~VncPasswordFile()
{
    if (file != -1) {
        ::close(file);
    }
}

bool VncPasswordFile::create(const QString &password, QString *error)
{
    const QByteArray bytes = scrambledVncPassword(password);
    if (bytes.isEmpty()) {
        *error = u"Failed to scramble the password"_s;
        return false;
    }
    file = ::memfd_create("password", MFD_CLOEXEC);
    if (file == -1 || ::write(file, bytes.constData(), static_cast<size_t>(bytes.size())) != bytes.size()) {
        *error = u"Failed to hand the password over: %1"_s.arg(qt_error_string(errno));
        return false;
    }
    return true;
}

QString VncPasswordFile::path() const
{
    return u"/proc/self/fd/%1"_s.arg(file);
}
