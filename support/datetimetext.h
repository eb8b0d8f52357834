// SPDX-License-Identifier: MIT
#pragma once

#include <QDateTime>
#include <QString>

/*
 * The one form in which the project writes points in time for others: "yyyy-MM-ddThh:mm:ss", local time, no
 * zone. The agent's log and state, session descriptions and peers all use it. Callable from any thread.
 */

/** @p time to the second; an empty text for a null time. */
[[nodiscard]] QString dateTimeToText(const QDateTime &time);

/** The local time that @p text names; a null time for text of any other form. */
[[nodiscard]] QDateTime dateTimeFromText(const QString &text);
