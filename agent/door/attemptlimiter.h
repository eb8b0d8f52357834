// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>

#include <chrono>

/**
 * Slows down guessing. After five wrong passwords from one address, each further one locks that address out, first for
 * 10 s and then for twice as long each time, up to 600 s. Only wrong passwords count, and not connections that send
 * nothing. A right password clears the address.
 *
 * Owned by the front door, used on the main thread only. The caller passes the time in.
 */
class AttemptLimiter final
{
public:
    using Clock = std::chrono::steady_clock;

    /** How many addresses are remembered. When there are more, the one whose last wrong password is oldest is
     * forgotten. */
    static constexpr qsizetype kMaxAddresses = 1024;
    static constexpr int kFreeAttempts = 5;

    /** Whether a response from @p address must be refused without checking it. */
    [[nodiscard]] bool isLocked(const QHostAddress &address, Clock::time_point now) const;

    void wrongPassword(const QHostAddress &address, Clock::time_point now);
    void rightPassword(const QHostAddress &address);

    /** The number of remembered addresses. */
    [[nodiscard]] qsizetype size() const { return attempts.size(); }

private:
    struct Attempts
    {
        int wrong = 0;
        Clock::time_point last;
        Clock::time_point lockedUntil;
    };

    void makeRoom(Clock::time_point now);

    QHash<QHostAddress, Attempts> attempts;
};
