// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/** What opens a display. A value. */
struct DisplayAuthority
{
    QByteArray cookie;
    QByteArray entries; ///< the cookie under each name of the display, in the form of an authority file
};

/**
 * Makes a new cookie for @p display.
 *
 * @param earlier    the content of an authority file. The display gets an entry under each name that it has there,
 *                   because only xauth knows what the names that it was given stand for. There is always an entry for
 *                   this host's local displays, even if the content is damaged.
 * @param authority  set only on success
 * @param error      set only on failure: one sentence
 */
[[nodiscard]] bool makeAuthority(const QByteArray &earlier, quint16 display, DisplayAuthority *authority,
                                 QString *error);

/**
 * Replaces the authority file at @p path by one with a new cookie, in one step. The old cookie is worth nothing: it was
 * in the arguments of xauth, where every user of the machine could read it. So no X server may ever get it.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool renewAuthorityFile(const QString &path, quint16 display, DisplayAuthority *authority,
                                      QString *error);

/**
 * Puts @p entries into a file in memory that nobody can change any more. An X server can read it again and again.
 *
 * @param error  set only on failure: one sentence
 * @return a close-on-exec descriptor that the caller owns; -1 on failure
 */
[[nodiscard]] int sealedAuthority(const QByteArray &entries, QString *error);
