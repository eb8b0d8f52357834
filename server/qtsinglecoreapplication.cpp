// SPDX-License-Identifier: MIT
#include "server/qtsinglecoreapplication.h"

#include <chrono>

using namespace std::chrono_literals;

namespace {

/** Programs that remove old files from /tmp wait for days. */
constexpr auto kRefreshInterval = 6h;

} // namespace

QtSingleCoreApplication::QtSingleCoreApplication(const QString &id_, int &argc, char **argv)
    : QCoreApplication(argc, argv)
    , lock(id_, InstanceFiles::standardFolders())
{
    connect(&refreshTimer, &QTimer::timeout, this, [this] { lock.refresh(); });
}

bool QtSingleCoreApplication::isRunning()
{
    const bool isOurs = lock.take();
    if (isOurs && !refreshTimer.isActive()) {
        refreshTimer.start(kRefreshInterval);
    }
    return !isOurs;
}
