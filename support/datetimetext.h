// SPDX-License-Identifier: MIT
#pragma once

#include <QDateTime>
#include <QString>

/*
 * Dates as text in the one form that all programs exchange: "yyyy-MM-ddThh:mm:ss", local time, no zone. The agent's log
 * and state, session descriptions and peers use it. Both functions are callable from any thread.
 */

/** @p time to the second; an empty text for a null time. */
[[nodiscard]] QString dateTimeToText(const QDateTime &time);

/** Reads a local time; returns a null time if @p text has another form. */
[[nodiscard]] QDateTime dateTimeFromText(const QString &text);
