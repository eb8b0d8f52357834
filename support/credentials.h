// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class QSslCertificate;
class QSslKey;

/*
 * The server's certificate and key. Whoever holds the key starts programs as this user, so neither function uses a file
 * that others could have written or replaced (see pathtrust.h).
 */

/**
 * Loads the first PEM certificate in the first MiB of a file. Does not check its dates. Callable from any thread.
 *
 * @param certificate  set only on success
 * @param error        set only on failure: one sentence that names the file
 * @return true when a certificate was found
 */
[[nodiscard]] bool readCertificate(const QString &path, QSslCertificate *certificate, QString *error);

/**
 * Loads the unencrypted PEM RSA private key in the first MiB of a file. An encrypted key is invalid, because there is
 * nobody to ask for a pass phrase. Callable from any thread.
 *
 * @param key    set only on success
 * @param error  set only on failure: one sentence that names the file
 * @return true when a key was found
 */
[[nodiscard]] bool readPrivateKey(const QString &path, QSslKey *key, QString *error);

/**
 * Loads both, the key first. Reads again if they were exchanged meanwhile, so that they belong together if the files
 * do. Callable from any thread.
 *
 * @param key, certificate  set only on success
 * @param error             set only on failure: one sentence that names the file
 */
[[nodiscard]] bool readCredentials(const QString &keyPath, const QString &certificatePath, QSslKey *key,
                                   QSslCertificate *certificate, QString *error);

/** One sentence if others can read the private key at @p path, else empty. Callable from any thread. */
[[nodiscard]] QString keyExposure(const QString &path);
