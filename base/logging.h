// SPDX-License-Identifier: MIT
#pragma once

#include "base/strangerlines.h"
#include "contract/loglevel.h"

#include <QMutex>
#include <QString>

/**
 * A destination for log lines, with a threshold. One logger is installed for the whole process, because every layer
 * logs and passing a logger to all of them would be a burden. The code that installs it owns it and keeps it until
 * nothing logs any more. All functions except setInstance() may be called from any thread.
 */
class Logging
{
public:
    Logging() = default;
    /** Uninstalls the logger if it is the installed one, because Qt may report something later. */
    virtual ~Logging();
    Q_DISABLE_COPY_MOVE(Logging)

    /** Writes one message. log() calls it with the mutex held, only for messages within the threshold. */
    virtual void write(int level, const QString &text) = 0;

    /** Writes @p text if @p level is at most the threshold. Lines from several threads never interleave. */
    void log(int level, const QString &text);

    /**
     * The same for a line that strangers can cause: written only if there are few of its kind in this minute, and
     * counted otherwise.
     */
    void logOfStrangers(int level, const QString &kind, const QString &text);
    /** Writes how many lines were only counted, and starts the next minute. Called once a minute and at the end. */
    void tellStrangerLines();

    void setLevel(int level);
    [[nodiscard]] int level() const;

    /** "Critical" to "Debug3"; empty for any other number. */
    [[nodiscard]] static QString levelName(int level);
    /** The level with exactly this name; LogInfo for any other text. */
    [[nodiscard]] static int levelFromName(const QString &name);
    /** One line with the local date and time, the level and the text; without a line end. */
    [[nodiscard]] static QString formatLine(int level, const QString &text);

    /** Installs the process's logger without taking ownership. Called on the main thread, before others log. */
    static void setInstance(Logging *logging);
    [[nodiscard]] static Logging *instance();

protected:
    mutable QMutex mutex; ///< guards the private members and the output of the subclass

private:
    int threshold = LogInfo;
    StrangerLines strangerLines;
};

/** Logs through the installed logger, which must exist. Callable from any thread. */
void logMessage(int level, const QString &text);

/**
 * The same for lines that anybody can cause who reaches one of our sockets. Beyond 20 a minute with the same @p format
 * they are only counted.
 * @param arguments  strings, which replace "%1", "%2" ... in the format
 */
template <typename... Arguments>
void logStrangerMessage(int level, const QString &format, const Arguments &...arguments)
{
    if constexpr (sizeof...(arguments) == 0) {
        Logging::instance()->logOfStrangers(level, format, format);
    } else {
        Logging::instance()->logOfStrangers(level, format, format.arg(arguments...));
    }
}
