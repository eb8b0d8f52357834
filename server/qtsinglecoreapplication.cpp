// SPDX-License-Identifier: MIT
#include "server/qtsinglecoreapplication.h"

#include <chrono>

using namespace std::chrono_literals;

namespace {

/** Programs that remove old files from /tmp wait for days. */
constexpr auto kRefreshInterval = 6h;

/** While all lock files are missing, a second server can start. A check costs two system calls for each folder. */
constexpr auto kRestoreInterval = 5s;

} // namespace

QtSingleCoreApplication::QtSingleCoreApplication(const QString &id_, int &argc, char **argv)
    : QCoreApplication(argc, argv)
    , lock(id_, InstanceFiles::standardFolders())
{
    connect(&refreshTimer, &QTimer::timeout, this, [this] { lock.refresh(); });
    connect(&restoreTimer, &QTimer::timeout, this, [this] { lock.restore(); });
}

bool QtSingleCoreApplication::isRunning()
{
    const bool isOurs = lock.take();
    if (isOurs && !refreshTimer.isActive()) {
        refreshTimer.start(kRefreshInterval);
        restoreTimer.start(kRestoreInterval);
    }
    return !isOurs;
}
