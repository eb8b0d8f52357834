// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/** Whether the certificate and the unencrypted key, both in PEM, belong together. Callable from any thread. */
[[nodiscard]] bool belongTogether(const QByteArray &certificateText, const QByteArray &keyText);
