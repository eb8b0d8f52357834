// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>
#include <QQueue>

#include <optional>
#include <utility>

/**
 * Decides which peer is asked next, and bounds how many are asked at a time and how many wait. Any host can make us ask
 * it as often as it likes, at ports where nobody answers. So the addresses take turns, each has a limited number of
 * places, and a full queue drops a peer of the address that has most of them. A plain value for one thread.
 */
class PeerQueue
{
public:
    using Peer = std::pair<QHostAddress, quint16>; ///< address and port

    /** How many peers are asked at a time. Each costs a thread, which mostly waits. */
    static constexpr int kMaxAsking = 32;
    /** How many of them may have the same address. Half of the places are always left to others. */
    static constexpr int kMaxAskingPerAddress = 16;
    /** How many peers wait. Enough for all answers to a "HELLO" at a large site. */
    static constexpr qsizetype kMaxWaiting = 4096;

    /** Adds a peer, even if it is waiting already. Drops it if the queue is full and its address has its share. */
    void add(const Peer &peer);
    /**
     * Takes the peer to ask next from the queue. It counts as being asked until finish(). None if no peer waits, or if
     * every one that waits would exceed a limit.
     */
    [[nodiscard]] std::optional<Peer> next();
    void finish(const Peer &peer);

    [[nodiscard]] int asking() const { return askingCount; }
    [[nodiscard]] qsizetype waiting() const { return waitingCount; }

private:
    struct Host
    {
        QQueue<quint16> ports; ///< those that wait
        int asking = 0;
    };

    [[nodiscard]] bool makeRoom(const QHostAddress &address);

    QHash<QHostAddress, Host> hosts; ///< each address with a peer that waits or is being asked
    QQueue<QHostAddress> turns;      ///< each address with a waiting peer and a place for it, once
    int askingCount = 0;
    qsizetype waitingCount = 0;
};
