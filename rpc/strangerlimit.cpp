// SPDX-License-Identifier: MIT
#include "rpc/strangerlimit.h"

#include "support/hostaddress.h"

StrangerLimit::Id StrangerLimit::add(const QHostAddress &address)
{
    const QHostAddress source = countedAddress(address);
    const Id id = ++lastId;
    sources.insert(id, source);
    connections[source].append(id);
    return id;
}

void StrangerLimit::remove(Id id)
{
    const auto found = sources.constFind(id);
    if (found == sources.constEnd()) {
        return;
    }
    const auto source = connections.find(*found);
    source->removeOne(id);
    if (source->isEmpty()) {
        connections.erase(source);
    }
    sources.erase(found);
}

std::optional<StrangerLimit::Id> StrangerLimit::excess() const
{
    const QList<Id> *biggest = nullptr;
    for (const QList<Id> &source : connections) {
        const bool isOlder = biggest && source.size() == biggest->size() && source.first() < biggest->first();
        if (!biggest || source.size() > biggest->size() || isOlder) {
            biggest = &source;
        }
    }
    if (!biggest || (sources.size() <= kMaxAll && biggest->size() <= kMaxPerSource)) {
        return std::nullopt;
    }
    return biggest->first();
}
