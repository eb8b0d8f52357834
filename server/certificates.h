// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * Creates the self-signed certificate and its key with the "openssl" program, unless there is a certificate
 * already. Blocks for as long as that takes; called on the main thread during start-up.
 *
 * @param error  set only on failure: one sentence; what a failed run has written stays
 */
[[nodiscard]] bool createCertificates(const QString &certificatePath, const QString &keyPath, QString *error);
