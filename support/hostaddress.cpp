// SPDX-License-Identifier: MIT
#include "support/hostaddress.h"

QHostAddress withoutIPv4Mapping(const QHostAddress &address)
{
    bool isIPv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIPv4);
    return isIPv4 ? QHostAddress(ipv4) : address;
}
