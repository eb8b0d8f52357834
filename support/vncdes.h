// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

inline constexpr qsizetype kVncDesBlockBytes = 8;

/**
 * Encrypts @p blocks with DES the way VNC uses it: each block by itself, and with the bits of each byte of the key in
 * reverse order. Callable from any thread.
 *
 * @param key     its first 8 bytes count; a shorter one is filled up with zero bytes
 * @param blocks  whole blocks of kVncDesBlockBytes
 * @return as many bytes; empty when @p blocks ends within a block, or when the cipher is not available
 */
[[nodiscard]] QByteArray vncDesEncrypted(const QByteArray &key, const QByteArray &blocks);
