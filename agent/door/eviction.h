// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QList>
#include <QRandomGenerator>

/**
 * Chooses which of several strangers loses its place because there are too many. One at random, of the address that has
 * most of the network prefix that has most: so a flood mostly hits itself, and a stranger who keeps trying among others
 * of his own network gets in at some time, which he would not if the oldest one went.
 *
 * @param strangers  their addresses, at least one
 * @return an index
 */
[[nodiscard]] qsizetype chooseEvicted(const QList<QHostAddress> &strangers, QRandomGenerator *random);

/**
 * Chooses which of several waiting strangers is served next: one at random, of an address at random, of a network
 * prefix at random. So a flood from one network takes no more turns than a single stranger of another one.
 *
 * @param strangers  their addresses, at least one
 * @return an index
 */
[[nodiscard]] qsizetype chooseServed(const QList<QHostAddress> &strangers, QRandomGenerator *random);
