// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class QSslCertificate;
class QSslKey;

/**
 * Loads the PEM certificate within the first MiB of a file.
 *
 * @param certificate  set only on success
 * @param error        set only on failure: one sentence that names the file
 * @return true when a certificate was found; its dates are not looked at. Callable from any thread.
 */
[[nodiscard]] bool readCertificate(const QString &path, QSslCertificate *certificate, QString *error);

/**
 * Loads the unencrypted PEM RSA private key within the first MiB of a file. Never asks for a pass phrase: an
 * encrypted key is an invalid one.
 *
 * @param key    set only on success
 * @param error  set only on failure: one sentence that names the file
 * @return true when a key was found. Callable from any thread.
 */
[[nodiscard]] bool readPrivateKey(const QString &path, QSslKey *key, QString *error);
