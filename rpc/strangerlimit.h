// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>
#include <QList>

#include <optional>

/**
 * Bounds the connections of clients that are not admitted, because each costs a descriptor and up to 100 kB. A source
 * is an address, or a network of 2^64 IPv6 addresses, because a host can have all of these. A plain value for one
 * thread.
 */
class StrangerLimit
{
public:
    using Id = quint64;

    /**
     * For all sources together: a quarter of the 1,024 descriptors that a process usually has, and 25 MB. More clients
     * than that never need to be in their handshake at the same time, because one takes milliseconds.
     */
    static constexpr qsizetype kMaxAll = 256;
    /** For one source, so that it takes four of them to affect clients from elsewhere. */
    static constexpr qsizetype kMaxPerSource = 64;

    /** Counts a connection until remove(). */
    [[nodiscard]] Id add(const QHostAddress &address);
    /** The client was admitted, or the connection has ended. Does nothing if that is known already. */
    void remove(Id id);

    /**
     * Which connection must end, after each add(): the oldest one of the source that has the most, or that has more
     * than its share. None below the limits.
     */
    [[nodiscard]] std::optional<Id> excess() const;

    [[nodiscard]] qsizetype size() const { return sources.size(); }

private:
    QHash<Id, QHostAddress> sources;
    QHash<QHostAddress, QList<Id>> connections; ///< of each source that has one, the oldest first
    Id lastId = 0;
};
