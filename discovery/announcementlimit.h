// SPDX-License-Identifier: MIT
#pragma once

#include "discovery/tokenbucket.h"

#include <QHash>
#include <QHostAddress>

/**
 * Decides which announcements are answered and lead to a query. A datagram's sender can be forged, and a query sends
 * ten times the bytes of the datagram to whom it names. Without a limit we would be a means to flood any host.
 *
 * Each source has a share, and all sources together have one, except for hosts that have proved that they are ours.
 * A plain value for one thread; the caller passes the time in.
 */
class AnnouncementLimit
{
public:
    using Clock = TokenBucket::Clock;

    /** Of one source. A server announces each change of its sessions, which are a few in a second at most. */
    static constexpr int kPerSecond = 10;
    /** Of all sources at once: when a server starts, up to so many other servers answer its "HELLO" together. */
    static constexpr int kMaxAtOnce = 100;
    /** Of all sources in the long run. So forged datagrams make us send 20 kB a second at most. */
    static constexpr int kAllPerSecond = 20;
    /** How many sources are remembered. Far more than have less than their share at a time. */
    static constexpr qsizetype kMaxSources = 1024;

    explicit AnnouncementLimit(Clock::time_point now);

    /** Whether to handle an announcement that seems to come from this address. Counts it if so. */
    [[nodiscard]] bool admits(const QHostAddress &address, Clock::time_point now);

    /** The host at this address has shown our certificate. From now on only its own share counts for it. */
    void trust(const QHostAddress &address, Clock::time_point now);

    [[nodiscard]] qsizetype size() const { return sources.size(); }

private:
    struct Source
    {
        TokenBucket bucket;
        Clock::time_point trustedUntil;
    };

    [[nodiscard]] Source *find(const QHostAddress &address, Clock::time_point now);

    QHash<QHostAddress, Source> sources; ///< those that differ from a new one
    TokenBucket all;
};
