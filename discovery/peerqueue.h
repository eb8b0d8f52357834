// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>
#include <QQueue>

#include <optional>
#include <utility>

/**
 * The peers that are to be asked, and how many are being asked. Any host can make us ask it, as often as it likes and
 * at ports where nobody answers; so the addresses take turns, each has so many places at a time, and where there is no
 * room for one more the address that has the most waiting loses one. A plain value for one thread.
 */
class PeerQueue
{
public:
    using Peer = std::pair<QHostAddress, quint16>; ///< address and port

    /** How many are asked at a time: each costs a thread that mostly waits. */
    static constexpr int kMaxAsking = 32;
    /** How many of them have one address: half of the places are always left to others. */
    static constexpr int kMaxAskingPerAddress = 16;
    /** How many wait: enough for the answers of a large site to one "HELLO". */
    static constexpr qsizetype kMaxWaiting = 4096;

    /** Adds one, the same as often as it is told to; left out where the address already fills its share of the room. */
    void add(const Peer &peer);
    /** The next one to ask; finish() gives its place back. Nothing while all places that it could have are taken. */
    [[nodiscard]] std::optional<Peer> next();
    void finish(const Peer &peer);

    [[nodiscard]] int asking() const { return askingCount; }
    [[nodiscard]] qsizetype waiting() const { return waitingCount; }

private:
    struct Host
    {
        QQueue<quint16> ports; ///< that wait
        int asking = 0;
    };

    [[nodiscard]] bool makeRoom(const QHostAddress &address);

    QHash<QHostAddress, Host> hosts; ///< those with anything that waits or is asked
    QQueue<QHostAddress> turns;      ///< those with something that waits and a place for it, each once
    int askingCount = 0;
    qsizetype waitingCount = 0;
};
