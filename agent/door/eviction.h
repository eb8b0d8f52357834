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
