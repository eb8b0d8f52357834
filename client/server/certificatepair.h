// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

/** Whether the certificate and the private key, both PEM texts, match. An encrypted key never does. Any thread. */
[[nodiscard]] bool belongTogether(const QByteArray &certificateText, const QByteArray &keyText);
