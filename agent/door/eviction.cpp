// SPDX-License-Identifier: MIT
#include "agent/door/eviction.h"

#include "agent/door/attemptlimiter.h"
#include "support/hostaddress.h"

#include <QHash>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

namespace {

using Places = QList<qsizetype>;

/** The network that one owner of many addresses usually has. */
QHostAddress prefixOf(const QHostAddress &address)
{
    constexpr quint32 kIPv4Network = 0xffffff00;
    constexpr int kIPv6NetworkBytes = 6;
    const QHostAddress plain = withoutIPv4Mapping(address);
    if (plain.protocol() == QAbstractSocket::IPv4Protocol) {
        return QHostAddress(plain.toIPv4Address() & kIPv4Network);
    }
    Q_IPV6ADDR network = plain.toIPv6Address();
    std::fill(std::begin(network.c) + kIPv6NetworkBytes, std::end(network.c), quint8{0});
    return QHostAddress(network);
}

using Groups = QHash<QHostAddress, Places>;

template <typename GroupOf>
Groups groupsOf(const QList<QHostAddress> &strangers, const Places &all, GroupOf groupOf)
{
    Groups groups;
    for (const qsizetype place : all) {
        groups[groupOf(strangers[place])].append(place);
    }
    return groups;
}

Places anyGroup(const Groups &groups, QRandomGenerator *random)
{
    return std::next(groups.cbegin(), random->bounded(groups.size())).value();
}

Places placesOf(const QList<QHostAddress> &strangers)
{
    Places all(strangers.size());
    std::iota(all.begin(), all.end(), qsizetype{0});
    return all;
}

/** The places, of @p all, whose address belongs to the group that has most; one at random among equals. */
template <typename GroupOf>
Places biggestGroup(const QList<QHostAddress> &strangers, const Places &all, GroupOf groupOf, QRandomGenerator *random)
{
    Groups groups = groupsOf(strangers, all, groupOf);
    qsizetype most = 0;
    for (const Places &group : std::as_const(groups)) {
        most = std::max(most, group.size());
    }
    groups.removeIf([most](const auto &group) { return group.value().size() < most; });
    return anyGroup(groups, random);
}

} // namespace

qsizetype chooseEvicted(const QList<QHostAddress> &strangers, QRandomGenerator *random)
{
    const Places prefix = biggestGroup(strangers, placesOf(strangers), prefixOf, random);
    const Places address = biggestGroup(strangers, prefix, countedAddress, random);
    return address[random->bounded(address.size())];
}

qsizetype chooseServed(const QList<QHostAddress> &strangers, QRandomGenerator *random)
{
    const Places prefix = anyGroup(groupsOf(strangers, placesOf(strangers), prefixOf), random);
    const Places address = anyGroup(groupsOf(strangers, prefix, countedAddress), random);
    return address[random->bounded(address.size())];
}
