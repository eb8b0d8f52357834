// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/** What an authority file holds for one display. A value. */
struct DisplayAuthority
{
    QByteArray cookie;  ///< of the first entry, for our own connection
    QByteArray entries; ///< all entries in the file's own form, for the X server
};

/**
 * Finds the MIT-MAGIC-COOKIE-1 entries of @p display in the content of an authority file. The check matters, because an
 * X server without any entry lets every local user in.
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
 * Puts @p entries into a file in memory that nobody can change any more. An X server can read it again and again.
 *
 * @param error  set only on failure: one sentence
 * @return a close-on-exec descriptor that the caller owns; -1 on failure
 */
[[nodiscard]] int sealedAuthority(const QByteArray &entries, QString *error);
