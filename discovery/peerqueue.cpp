// SPDX-License-Identifier: MIT
#include "discovery/peerqueue.h"

#include <algorithm>

void PeerQueue::add(const Peer &peer)
{
    if (waitingCount >= kMaxWaiting && !makeRoom(peer.first)) {
        return;
    }
    Host &host = hosts[peer.first];
    host.ports.enqueue(peer.second);
    ++waitingCount;
    if (host.ports.size() == 1 && host.asking < kMaxAskingPerAddress) {
        turns.enqueue(peer.first);
    }
}

/**
 * Drops the newest waiting peer of the address that has the most. Drops none, and returns false, if @p address already
 * waits or no address has two peers: then the new peer has no better claim.
 */
bool PeerQueue::makeRoom(const QHostAddress &address)
{
    if (hosts.contains(address) && !hosts[address].ports.isEmpty()) {
        return false;
    }
    const auto longest = std::max_element(hosts.begin(), hosts.end(),
                                          [](const Host &a, const Host &b) { return a.ports.size() < b.ports.size(); });
    if (longest->ports.size() < 2) {
        return false;
    }
    longest->ports.removeLast();
    --waitingCount;
    return true;
}

std::optional<PeerQueue::Peer> PeerQueue::next()
{
    if (askingCount >= kMaxAsking || turns.isEmpty()) {
        return std::nullopt;
    }
    const QHostAddress address = turns.dequeue();
    Host &host = hosts[address];
    const Peer peer(address, host.ports.dequeue());
    --waitingCount;
    ++host.asking;
    ++askingCount;
    if (!host.ports.isEmpty() && host.asking < kMaxAskingPerAddress) {
        turns.enqueue(address);
    }
    return peer;
}

void PeerQueue::finish(const Peer &peer)
{
    Host &host = hosts[peer.first];
    --askingCount;
    if (host.asking-- == kMaxAskingPerAddress && !host.ports.isEmpty()) {
        turns.enqueue(peer.first); // it had no place until now
    } else if (host.asking == 0 && host.ports.isEmpty()) {
        hosts.remove(peer.first);
    }
}
