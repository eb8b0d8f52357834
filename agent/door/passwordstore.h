// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <optional>

/**
 * The open one-time passwords. Each lets one client in and is then removed. Owned by the agent, used on the main thread
 * only, so take() is atomic: two clients cannot use the same password.
 */
class PasswordStore final
{
public:
    /** Passwords open at one time. One more replaces the oldest, so that unused passwords do not pile up. */
    static constexpr qsizetype kMaxOpen = 16;

    struct Added
    {
        QByteArray password; ///< the new password
        QByteArray expired;  ///< the password that it replaced; empty when there was room
    };

    /** Adds a password of 8 letters and digits from the system's random generator. */
    Added add();

    /**
     * Finds the password that answers @p challenge with @p response, and removes it. The time that it takes does not
     * depend on how close a response comes.
     *
     * @return the removed password; nothing when none fits, and then none is removed
     */
    [[nodiscard]] std::optional<QByteArray> take(const QByteArray &challenge, const QByteArray &response);

    /** Removes and returns all of them, oldest first. */
    QList<QByteArray> takeAll();

    /** Oldest first. */
    [[nodiscard]] const QList<QByteArray> &all() const { return passwords; }

private:
    QList<QByteArray> passwords;
};
