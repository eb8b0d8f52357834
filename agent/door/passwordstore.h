// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <optional>

/**
 * The one-time passwords that are open: each lets one client in and is gone with that. Owned by the agent, used on the
 * main thread only; that is what makes take() one step that no second client can get between.
 */
class PasswordStore final
{
public:
    /** Open at one time. Passwords that nobody ever uses must not pile up; the oldest makes room. */
    static constexpr qsizetype kMaxOpen = 16;

    struct Added
    {
        QByteArray password; ///< the new one
        QByteArray expired;  ///< the one that had to make room; empty when there was room
    };

    /** Makes one more password, of 8 letters and digits from the system's random generator. */
    Added add();

    /**
     * Finds the password that answers @p challenge with @p response, and removes it. The time that it takes does not
     * tell which password came close.
     *
     * @return the password used up; nothing, with no password lost, when none fits
     */
    [[nodiscard]] std::optional<QByteArray> take(const QByteArray &challenge, const QByteArray &response);

    /** Removes and returns all of them, oldest first. */
    QList<QByteArray> takeAll();

    /** Oldest first. */
    [[nodiscard]] const QList<QByteArray> &all() const { return passwords; }

private:
    QList<QByteArray> passwords;
};
