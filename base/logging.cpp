// SPDX-License-Identifier: MIT
#include "base/logging.h"

#include <QDateTime>
#include <QMutexLocker>

#include <array>

using namespace Qt::StringLiterals;

namespace {

constexpr std::array kLevelNames = {"Critical"_L1, "Warning"_L1, "Info"_L1, "Debug1"_L1, "Debug2"_L1, "Debug3"_L1};

Logging *installed = nullptr;

} // namespace

void Logging::log(int level, const QString &text)
{
    const QMutexLocker locker(&mutex);
    if (level <= threshold) {
        write(level, text);
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
    if (level < 0 || level >= static_cast<int>(kLevelNames.size())) {
        return {};
    }
    return kLevelNames[static_cast<size_t>(level)];
}

int Logging::levelFromName(const QString &name)
{
    for (size_t level = 0; level < kLevelNames.size(); ++level) {
        if (name == kLevelNames[level]) {
            return static_cast<int>(level);
        }
    }
    return LogInfo;
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
