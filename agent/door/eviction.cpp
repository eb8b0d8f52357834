// SPDX-License-Identifier: MIT
#include "agent/door/eviction.h"

#include "agent/door/attemptlimiter.h"
#include "support/hostaddress.h"

#include <QHash>

#include <algorithm>

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

/** The places, of @p all, whose address belongs to the group that has most; one at random among equals. */
template <typename GroupOf>
Places biggestGroup(const QList<QHostAddress> &strangers, const Places &all, GroupOf groupOf, QRandomGenerator *random)
{
    QHash<QHostAddress, Places> groups;
    for (const qsizetype place : all) {
        groups[groupOf(strangers[place])].append(place);
    }
    qsizetype most = 0;
    for (const Places &group : std::as_const(groups)) {
        most = std::max(most, group.size());
    }
    groups.removeIf([most](const auto &group) { return group.value().size() < most; });
    return std::next(groups.cbegin(), random->bounded(groups.size())).value();
}

} // namespace

qsizetype chooseEvicted(const QList<QHostAddress> &strangers, QRandomGenerator *random)
{
    Places all;
    for (qsizetype place = 0; place < strangers.size(); ++place) {
        all.append(place);
    }
    const Places prefix = biggestGroup(strangers, all, prefixOf, random);
    const Places address = biggestGroup(strangers, prefix, countedAddress, random);
    return address[random->bounded(address.size())];
}
