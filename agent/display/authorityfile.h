// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/** What a display's authority file says about it. A value. */
struct DisplayAuthority
{
    QByteArray cookie;  ///< of the first entry for the display, for our own connection
    QByteArray entries; ///< all of its entries in the file's own form, for the X server
};

/**
 * Finds the MIT-MAGIC-COOKIE-1 entries of @p display in the content of an authority file. Without any, the X server
 * would let every local user in, so there is no way around this check.
 *
 * @param authority  set only on success
 * @return false when there is none, or when the content is damaged
 */
[[nodiscard]] bool parseAuthority(const QByteArray &content, quint16 display, DisplayAuthority *authority);

/**
 * The same for the file at @p path.
 *
 * @param error  set only on failure: one sentence that names the file
 */
[[nodiscard]] bool readAuthorityFile(const QString &path, quint16 display, DisplayAuthority *authority, QString *error);

/**
 * Puts @p entries into a file without a name that nobody can change any more, for an X server to read as often as it
 * likes.
 *
 * @param error  set only on failure: one sentence
 * @return a close-on-exec descriptor that the caller owns; -1 on failure
 */
[[nodiscard]] int sealedAuthority(const QByteArray &entries, QString *error);
