// SPDX-License-Identifier: MIT
#include "agent/door/attemptlimiter.h"

#include "support/hostaddress.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {

constexpr std::chrono::seconds kFirstLock = 10s;
constexpr std::chrono::seconds kLongestLock = 600s;

/** After this time without a wrong password, an address starts from zero again. */
constexpr std::chrono::seconds kMemory = 2 * kLongestLock;

std::chrono::seconds lockTime(int wrong)
{
    std::chrono::seconds time = kFirstLock;
    for (int i = AttemptLimiter::kFreeAttempts + 1; i < wrong && time < kLongestLock; ++i) {
        time *= 2;
    }
    return std::min(time, kLongestLock);
}

} // namespace

bool AttemptLimiter::isLocked(const QHostAddress &address, Clock::time_point now) const
{
    const auto found = attempts.constFind(countedAddress(address));
    return found != attempts.constEnd() && now < found->lockedUntil;
}

void AttemptLimiter::wrongPassword(const QHostAddress &address, Clock::time_point now)
{
    const QHostAddress counted = countedAddress(address);
    if (!attempts.contains(counted) && attempts.size() >= kMaxAddresses) {
        makeRoom(now);
    }
    Attempts &entry = attempts[counted];
    if (now - entry.last > kMemory) {
        entry.wrong = 0;
    }
    entry.last = now;
    ++entry.wrong;
    if (entry.wrong > kFreeAttempts) {
        entry.lockedUntil = now + lockTime(entry.wrong);
    }
}

void AttemptLimiter::rightPassword(const QHostAddress &address)
{
    attempts.remove(countedAddress(address));
}

void AttemptLimiter::makeRoom(Clock::time_point now)
{
    erase_if(attempts, [now](auto entry) { return now - entry.value().last > kMemory; });
    if (attempts.size() < kMaxAddresses) {
        return;
    }
    const auto oldest = std::min_element(attempts.cbegin(), attempts.cend(),
                                         [](const Attempts &a, const Attempts &b) { return a.last < b.last; });
    attempts.erase(oldest);
}
