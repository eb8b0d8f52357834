// SPDX-License-Identifier: MIT
#pragma once

#include "server/instancelock.h"

#include <QCoreApplication>
#include <QString>
#include <QTimer>

/**
 * The application object of a program that each user runs once. The first process holds a lock until it ends, however
 * it ends. Child processes do not inherit the lock.
 */
class QtSingleCoreApplication : public QCoreApplication
{
    Q_OBJECT

public:
    /** @param id  the name of the program; the lock is for this id and the numeric id of the user */
    QtSingleCoreApplication(const QString &id, int &argc, char **argv);

    /** Whether another process of this user holds the lock. If not, this process holds it from now on. */
    [[nodiscard]] bool isRunning();

private:
    InstanceLock lock;
    QTimer refreshTimer;
    QTimer restoreTimer;
};
