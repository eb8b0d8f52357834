// SPDX-License-Identifier: MIT
#include "support/hostaddress.h"

#include <algorithm>
#include <iterator>

QHostAddress withoutIPv4Mapping(const QHostAddress &address)
{
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    return isIPv4 ? QHostAddress(ipv4) : address;
}

QHostAddress countedAddress(const QHostAddress &address)
{
    const QHostAddress plain = withoutIPv4Mapping(address);
    if (plain.protocol() != QAbstractSocket::IPv6Protocol) {
        return plain;
    }
    Q_IPV6ADDR network = plain.toIPv6Address();
    std::fill(std::begin(network.c) + 8, std::end(network.c), quint8{0});
    return QHostAddress(network);
}
