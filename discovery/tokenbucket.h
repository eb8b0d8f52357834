// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>

/**
 * A rate limit that allows a burst: it holds up to @p capacity tokens, of which each event takes one, and gets @p rate
 * new ones in a second. A plain value; the caller passes the time in, which never goes back.
 */
class TokenBucket
{
public:
    using Clock = std::chrono::steady_clock;

    /** A full bucket. */
    TokenBucket(double capacity, double rate, Clock::time_point now);

    /** Whether there is a token. */
    [[nodiscard]] bool hasToken(Clock::time_point now) const { return tokensAt(now) >= 1; }
    /** Takes a token. Called only if there is one. */
    void take(Clock::time_point now);
    /** Whether it is as a new one would be. */
    [[nodiscard]] bool isFull(Clock::time_point now) const { return tokensAt(now) >= capacity; }

private:
    [[nodiscard]] double tokensAt(Clock::time_point now) const;

    double capacity;
    double rate; ///< tokens a second
    double tokens;
    Clock::time_point last; ///< when there were so many tokens
};
