// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringView>

/*
 * Text as a terminal shows it. All functions are callable from any thread and do not depend on the locale.
 */

/** The columns that @p text takes: two for wide characters, none for combining ones. */
[[nodiscard]] int displayWidth(QStringView text);

/** @p text filled up with blanks to @p width columns; longer text is returned unchanged. */
[[nodiscard]] QString padded(const QString &text, int width);

/** @p text cut to @p width columns, with an ellipsis as the last of them when something was cut off. */
[[nodiscard]] QString elided(const QString &text, int width);

/**
 * @p text without what a terminal would obey: names come from other programs and other hosts, and a control
 * character in them must not reach the terminal. Each becomes U+FFFD.
 */
[[nodiscard]] QString printable(const QString &text);
