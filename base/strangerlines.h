// SPDX-License-Identifier: MIT
#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

/**
 * Decides which of the log lines that strangers can cause are written. Without a limit, anybody on the network could
 * fill the disk. A plain value; the logger guards it.
 */
class StrangerLines
{
public:
    /** How many lines of a kind are written in a minute. Enough to see what goes on, and who does it. */
    static constexpr int kMaxPerMinute = 20;

    /**
     * Counts one line.
     * @param kind  the text without its arguments; one of the program's own texts, so there is a limited number
     * @return whether the line is to be written
     */
    [[nodiscard]] bool add(const QString &kind);

    /** Starts the next minute. Returns a line about each kind of which lines were left out in the last one. */
    [[nodiscard]] QStringList endMinute();

private:
    QMap<QString, qint64> counts; ///< lines in this minute by kind
};
