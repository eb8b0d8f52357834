// SPDX-License-Identifier: MIT
#include "agent/door/passwordstore.h"

#include "agent/door/vncauth.h"

#include <QRandomGenerator>

#include <string_view>
#include <utility>

namespace {

/** VNC authentication uses no more than eight characters. */
constexpr int kPasswordLength = 8;
constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

QByteArray newPassword()
{
    QByteArray password;
    for (int i = 0; i < kPasswordLength; ++i) {
        password += kAlphabet[QRandomGenerator::system()->bounded(static_cast<quint32>(kAlphabet.size()))];
    }
    return password;
}

} // namespace

PasswordStore::Added PasswordStore::add()
{
    Added added;
    if (passwords.size() == kMaxOpen) {
        added.expired = passwords.takeFirst();
    }
    do {
        added.password = newPassword();
    } while (passwords.contains(added.password));
    passwords.append(added.password);
    return added;
}

std::optional<QByteArray> PasswordStore::take(const QByteArray &challenge, const QByteArray &response)
{
    qsizetype found = -1;
    for (qsizetype i = 0; i < passwords.size(); ++i) {
        // All passwords are compared, each in constant time, so that timing tells nothing about them.
        if (equalInConstantTime(vncAuthResponse(passwords[i], challenge), response)) {
            found = i;
        }
    }
    if (found == -1) {
        return std::nullopt;
    }
    return passwords.takeAt(found);
}

QList<QByteArray> PasswordStore::takeAll()
{
    return std::exchange(passwords, {});
}
