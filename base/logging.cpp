// SPDX-License-Identifier: MIT
#include "base/logging.h"

#include <QDateTime>
#include <QMutexLocker>

#include <atomic>

using namespace Qt::StringLiterals;

namespace {

/**
 * Atomic, because a thread with a fatal message of Qt may read it while the main thread uninstalls the logger. No other
 * message is logged on another thread by then.
 */
std::atomic<Logging *> installed = nullptr;

} // namespace

Logging::~Logging()
{
    Logging *expected = this;
    installed.compare_exchange_strong(expected, nullptr);
}

void Logging::log(int level, const QString &text)
{
    const QMutexLocker locker(&mutex);
    if (level <= threshold) {
        write(level, text);
    }
}

void Logging::logOfStrangers(int level, const QString &kind, const QString &text)
{
    const QMutexLocker locker(&mutex);
    if (level <= threshold && strangerLines.add(kind)) {
        write(level, text);
    }
}

void Logging::tellStrangerLines()
{
    const QMutexLocker locker(&mutex);
    const QStringList lines = strangerLines.endMinute();
    if (LogWarning > threshold) {
        return;
    }
    for (const QString &line : lines) {
        write(LogWarning, line);
    }
}

void Logging::setLevel(int level)
{
    const QMutexLocker locker(&mutex);
    threshold = level;
}

int Logging::level() const
{
    const QMutexLocker locker(&mutex);
    return threshold;
}

QString Logging::levelName(int level)
{
    return logLevelName(level);
}

int Logging::levelFromName(const QString &name)
{
    return logLevelFromName(name).value_or(LogInfo);
}

QString Logging::formatLine(int level, const QString &text)
{
    const QString time = QDateTime::currentDateTime().toString(u"ddd d hh:mm:ss"_s);
    return u"%1: %2: %3"_s.arg(time, levelName(level), text);
}

void Logging::setInstance(Logging *logging)
{
    installed = logging;
}

Logging *Logging::instance()
{
    return installed;
}

void logMessage(int level, const QString &text)
{
    Logging::instance()->log(level, text);
}
