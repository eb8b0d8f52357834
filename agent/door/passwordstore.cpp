// SPDX-License-Identifier: MIT
#include "agent/door/passwordstore.h"

#include "agent/door/vncauth.h"

#include <QRandomGenerator>

#include <string_view>

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

PasswordStore::Added PasswordStore::add(Clock::time_point now)
{
    Added added;
    if (entries.size() == kMaxOpen) {
        added.expired = entries.takeFirst().password;
    }
    do {
        added.password = newPassword();
    } while (all().contains(added.password));
    entries.append({added.password, now + lifetime});
    return added;
}

std::optional<QByteArray> PasswordStore::take(const QByteArray &challenge, const QByteArray &response,
                                              Clock::time_point now)
{
    qsizetype found = -1;
    for (qsizetype i = 0; i < entries.size(); ++i) {
        // All passwords are compared, each in constant time, so that timing tells nothing about them.
        if (equalInConstantTime(vncAuthResponse(entries[i].password, challenge), response) && now < entries[i].end) {
            found = i;
        }
    }
    if (found == -1) {
        return std::nullopt;
    }
    return entries.takeAt(found).password;
}

QList<QByteArray> PasswordStore::takeOverdue(Clock::time_point now)
{
    QList<QByteArray> overdue;
    while (!entries.isEmpty() && entries.first().end <= now) {
        overdue.append(entries.takeFirst().password);
    }
    return overdue;
}

std::optional<PasswordStore::Clock::time_point> PasswordStore::nextEnd() const
{
    return entries.isEmpty() ? std::nullopt : std::optional(entries.first().end);
}

QList<QByteArray> PasswordStore::takeAll()
{
    const QList<QByteArray> taken = all();
    entries.clear();
    return taken;
}

QList<QByteArray> PasswordStore::all() const
{
    QList<QByteArray> passwords;
    for (const Entry &entry : entries) {
        passwords.append(entry.password);
    }
    return passwords;
}
