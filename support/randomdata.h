// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Makes an unguessable token of 128 bits from the system's random device. There is no weaker source as a fallback.
 * Callable from any thread.
 *
 * @param result  set only on success: 32 lower-case hexadecimal digits
 * @param error   set only on failure: one sentence
 * @param device  where the bytes come from; tests give another path
 */
[[nodiscard]] bool randomHex(QString *result, QString *error, const QString &device = QStringLiteral("/dev/urandom"));
