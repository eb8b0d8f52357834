// SPDX-License-Identifier: MIT
#pragma once

#include <QCoreApplication>
#include <QString>

/**
 * The application object of a program of which each user runs one: whoever asks first holds a lock until its
 * process ends, however it ends. Child processes do not inherit it.
 */
class QtSingleCoreApplication : public QCoreApplication
{
    Q_OBJECT

public:
    /** @param id  names the program and, together with the user's numeric id, the lock */
    QtSingleCoreApplication(const QString &id, int &argc, char **argv);
    ~QtSingleCoreApplication() override;

    /** Whether another process of this user holds the id; if not, this one holds it from now on. */
    [[nodiscard]] bool isRunning();

private:
    void releaseLock();

    const QString id;
    int lock = -1; ///< the descriptor that holds the lock
};
