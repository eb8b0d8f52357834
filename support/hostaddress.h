// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>

/**
 * An IPv4 address in its own form, "192.0.2.1". A socket for both families reports it as the IPv6 address
 * "::ffff:192.0.2.1", so the same host would have two addresses. Any other address is returned unchanged.
 * Callable from any thread.
 */
[[nodiscard]] QHostAddress withoutIPv4Mapping(const QHostAddress &address);

/**
 * The form of an address under which limits count it. An IPv6 host usually owns at least 64 bits of addresses, so only
 * the network part counts. An IPv4-mapped address counts as the IPv4 address, so that no host gets two shares.
 * Callable from any thread.
 */
[[nodiscard]] QHostAddress countedAddress(const QHostAddress &address);
