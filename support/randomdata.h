// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Makes an unguessable token of 128 bits from the system's random device.
 *
 * @param result  set only on success: 32 lower-case hexadecimal digits
 * @param error   set only on failure: one sentence; there is no weaker source to fall back to
 * @param device  where the bytes come from; another path is for tests
 * @return true on success. Callable from any thread.
 */
[[nodiscard]] bool randomHex(QString *result, QString *error, const QString &device = QStringLiteral("/dev/urandom"));
