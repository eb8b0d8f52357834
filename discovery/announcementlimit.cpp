// SPDX-License-Identifier: MIT
#include "discovery/announcementlimit.h"

#include "support/hostaddress.h"

using namespace std::chrono_literals;

namespace {

/** As long as the list of a peer is valid, which it renews every five minutes. */
constexpr auto kTrustTime = 400s;

} // namespace

AnnouncementLimit::AnnouncementLimit(Clock::time_point now)
    : all(kMaxAtOnce, kAllPerSecond, now)
{
}

bool AnnouncementLimit::admits(const QHostAddress &address, Clock::time_point now)
{
    const auto known = sources.find(countedAddress(address));
    const bool isTrusted = known != sources.end() && now < known->trustedUntil;
    if ((known != sources.end() && !known->bucket.hasToken(now)) || (!isTrusted && !all.hasToken(now))) {
        return false;
    }
    // Only now, so a flood from forged addresses does not fill the table.
    Source *source = find(address, now);
    if (!source) {
        return false;
    }
    source->bucket.take(now);
    if (!isTrusted) {
        all.take(now);
    }
    return true;
}

void AnnouncementLimit::trust(const QHostAddress &address, Clock::time_point now)
{
    if (Source *source = find(address, now)) {
        source->trustedUntil = now + kTrustTime;
    }
}

/** Makes an entry for a new source. None if there are too many. */
AnnouncementLimit::Source *AnnouncementLimit::find(const QHostAddress &address, Clock::time_point now)
{
    const QHostAddress counted = countedAddress(address);
    if (!sources.contains(counted) && sources.size() >= kMaxSources) {
        sources.removeIf(
            [now](auto entry) { return entry.value().bucket.isFull(now) && entry.value().trustedUntil <= now; });
        if (sources.size() >= kMaxSources) {
            return nullptr;
        }
    }
    const auto found = sources.find(counted);
    const Source fresh{TokenBucket(kPerSecond, kPerSecond, now), now};
    return &*(found != sources.end() ? found : sources.insert(counted, fresh));
}
