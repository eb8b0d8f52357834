// SPDX-License-Identifier: MIT
#include "server/qtsinglecoreapplication.h"

QtSingleCoreApplication::QtSingleCoreApplication(const QString &id_, int &argc, char **argv)
    : QCoreApplication(argc, argv)
    , lock(id_, InstanceLock::folders())
{
}

bool QtSingleCoreApplication::isRunning()
{
    return !lock.take();
}
