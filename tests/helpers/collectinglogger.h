// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QMutexLocker>
#include <QStringList>

/**
 * The installed logger as long as it exists. Keeps every line as "Level: text". Made on the main thread before other
 * threads log; all other functions are callable from any thread.
 */
class CollectingLogger final : public Logging
{
public:
    CollectingLogger()
        : previous(instance())
    {
        setLevel(LogDebug3);
        setInstance(this);
    }
    ~CollectingLogger() override { setInstance(previous); }
    Q_DISABLE_COPY_MOVE(CollectingLogger)

    void write(int level, const QString &text) override
    {
        collected.append(levelName(level) + QStringLiteral(": ") + text);
    }

    /** Returns the lines since the last call. */
    [[nodiscard]] QStringList takeLines()
    {
        const QMutexLocker locker(&mutex);
        QStringList lines;
        lines.swap(collected);
        return lines;
    }

private:
    Logging *previous;
    QStringList collected; ///< guarded by the mutex of the base class
};
