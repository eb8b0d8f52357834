// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>

#include <chrono>

/**
 * What counts as one address where somebody's share is limited: one host owns at least 64 bits of an IPv6 address, and
 * an IPv4 host must not get a second share by coming in through the mapped form.
 */
[[nodiscard]] QHostAddress countedAddress(const QHostAddress &address);

/**
 * Slows down guessing: after five wrong passwords from one address, each further one locks that address out, first for
 * 10 s and then for twice as long each time, up to 600 s. Only a wrong password counts; who connects and says nothing
 * has guessed nothing. A right password clears the address.
 *
 * Owned by the front door, used on the main thread only. The caller brings the time.
 */
class AttemptLimiter final
{
public:
    using Clock = std::chrono::steady_clock;

    /** Addresses that are remembered; beyond that, the one that has been quiet for longest is forgotten. */
    static constexpr qsizetype kMaxAddresses = 1024;
    static constexpr int kFreeAttempts = 5;

    /** Whether a try from @p address must be refused unseen. */
    [[nodiscard]] bool isLocked(const QHostAddress &address, Clock::time_point now) const;

    void wrongPassword(const QHostAddress &address, Clock::time_point now);
    void rightPassword(const QHostAddress &address);

    /** How many addresses are remembered. */
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
