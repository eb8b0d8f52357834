// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <chrono>
#include <optional>

/**
 * The open one-time passwords. Each lets one client in and is then removed. Owned by the agent, used on the main thread
 * only, so take() is atomic: two clients cannot use the same password.
 */
class PasswordStore final
{
public:
    using Clock = std::chrono::steady_clock;

    /** Passwords open at one time. One more replaces the oldest, so that unused passwords do not pile up. */
    static constexpr qsizetype kMaxOpen = 16;

    struct Added
    {
        QByteArray password; ///< the new password
        QByteArray expired;  ///< the password that it replaced; empty when there was room
    };

    /** Sets how long a password that is added from now on is open. */
    void setLifetime(Clock::duration duration) { lifetime = duration; }

    /** Adds a password of 8 letters and digits from the system's random generator. */
    Added add(Clock::time_point now = Clock::now());

    /**
     * Finds the password that answers @p challenge with @p response, and removes it. The time that it takes does not
     * depend on how close a response comes. One whose time is over fits no response.
     *
     * @return the removed password; nothing when none fits, and then none is removed
     */
    [[nodiscard]] std::optional<QByteArray> take(const QByteArray &challenge, const QByteArray &response,
                                                 Clock::time_point now = Clock::now());

    /** Removes and returns those whose time is over, oldest first. */
    QList<QByteArray> takeOverdue(Clock::time_point now = Clock::now());
    /** When the next one's time is over; nothing if there is none. */
    [[nodiscard]] std::optional<Clock::time_point> nextEnd() const;

    /** Removes and returns all of them, oldest first. */
    QList<QByteArray> takeAll();

    /** Oldest first. */
    [[nodiscard]] QList<QByteArray> all() const;

private:
    struct Entry
    {
        QByteArray password;
        Clock::time_point end;
    };

    QList<Entry> entries; ///< oldest first
    Clock::duration lifetime = std::chrono::minutes(10);
};
