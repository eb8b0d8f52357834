// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QStringView>

/*
 * Text as a terminal shows it. All functions are callable from any thread and independent of the locale.
 */

/** The columns that @p text occupies: two for each wide character, none for combining ones. */
[[nodiscard]] int displayWidth(QStringView text);

/** @p text filled with blanks up to @p width columns; longer text is returned unchanged. */
[[nodiscard]] QString padded(const QString &text, int width);

/** @p text cut to @p width columns; the last one is an ellipsis if anything was cut off. */
[[nodiscard]] QString elided(const QString &text, int width);

/**
 * @p text with each control character replaced by U+FFFD. Names come from other programs and hosts, and a terminal
 * would execute control characters in them.
 */
[[nodiscard]] QString printable(const QString &text);
