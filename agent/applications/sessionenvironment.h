// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <sys/types.h>

/** Our own environment, each variable as "NAME=value". */
[[nodiscard]] QList<QByteArray> currentEnvironment();

/**
 * The environment of a session's applications: @p base with the display and its authority, and without what belongs to
 * the login that the session was started from.
 *
 * @param authorityPath  absolute
 */
[[nodiscard]] QList<QByteArray> applicationEnvironment(const QList<QByteArray> &base, quint16 display,
                                                       const QString &authorityPath);

/**
 * The file-creation mask that a login gives the user, as the file at @p loginSettings says; 022 when it does not say.
 * Our own mask does not count, because it keeps the session's files private.
 */
[[nodiscard]] mode_t userFileCreationMask(const QString &loginSettings = QStringLiteral("/etc/login.defs"));
