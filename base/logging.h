// SPDX-License-Identifier: MIT
#pragma once

#include "contract/loglevel.h"

#include <QMutex>
#include <QString>

/**
 * A destination of log lines with a threshold. One logger is installed for the whole process, because
 * every layer logs and none should have to be handed a logger to do so; it is owned by whoever installed it
 * and outlives everything that logs. All functions but setInstance() may be called from any thread.
 */
class Logging
{
public:
    Logging() = default;
    /** The installed logger is uninstalled, because messages of Qt may still come after it. */
    virtual ~Logging();
    Q_DISABLE_COPY_MOVE(Logging)

    /** Writes one message. Called by log() with the mutex held, for messages that pass the threshold. */
    virtual void write(int level, const QString &text) = 0;

    /** Writes @p text when @p level is at most the threshold. Lines of several threads never interleave. */
    void log(int level, const QString &text);

    void setLevel(int level);
    [[nodiscard]] int level() const;

    /** "Critical" to "Debug3"; empty for any other number. */
    [[nodiscard]] static QString levelName(int level);
    /** The level of exactly this name; LogInfo for any other text. */
    [[nodiscard]] static int levelFromName(const QString &name);
    /** Local date and time, level and text as one line, without its line end. */
    [[nodiscard]] static QString formatLine(int level, const QString &text);

    /** Installs the process's logger without taking ownership. Called on the main thread, before others log. */
    static void setInstance(Logging *logging);
    [[nodiscard]] static Logging *instance();

protected:
    mutable QMutex mutex; ///< guards the threshold and whatever a subclass writes to

private:
    int threshold = LogInfo;
};

/** Logs through the installed logger. There must be one. Callable from any thread. */
void logMessage(int level, const QString &text);
