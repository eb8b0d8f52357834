// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/dice.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <mutex>
#include <thread>

/**
 * An agent's socket: tells every caller, in pieces, what it was told last, and hangs up. Lives until the process ends;
 * its functions are called by one thread.
 */
class StateServer final
{
public:
    StateServer();
    StateServer(const StateServer &) = delete;
    StateServer &operator=(const StateServer &) = delete;

    [[nodiscard]] QString path() const { return folder.filePath(QStringLiteral("socket")); }
    /** Tells this from now on. */
    void tell(const QByteArray &bytes);

private:
    void serve();
    void answer(int connection);

    QTemporaryDir folder;
    int listener = -1;
    std::mutex mutex; ///< guards the answer
    QByteArray state;
    std::thread thread; // the last one: it uses all the others
};
