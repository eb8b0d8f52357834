// SPDX-License-Identifier: MIT
#include "discovery/tokenbucket.h"

#include <algorithm>

TokenBucket::TokenBucket(double capacity_, double rate_, Clock::time_point now)
    : capacity(capacity_)
    , rate(rate_)
    , tokens(capacity_)
    , last(now)
{
}

void TokenBucket::take(Clock::time_point now)
{
    tokens = tokensAt(now) - 1;
    last = now;
}

double TokenBucket::tokensAt(Clock::time_point now) const
{
    const std::chrono::duration<double> passed = now - last;
    return std::min(capacity, tokens + rate * passed.count());
}
