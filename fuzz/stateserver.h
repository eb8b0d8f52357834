// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/dice.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <mutex>
#include <thread>

/**
 * Plays the socket of an agent: sends every caller the current answer, in pieces, and closes the connection. Lives
 * until the process ends; one thread calls its functions.
 */
class StateServer final
{
public:
    StateServer();
    Q_DISABLE_COPY_MOVE(StateServer)

    [[nodiscard]] QString path() const { return folder.filePath(QStringLiteral("socket")); }
    /** Sets the answer for further callers. */
    void tell(const QByteArray &bytes);

private:
    void serve();
    void answer(int connection);

    QTemporaryDir folder;
    int listener = -1;
    std::mutex mutex; ///< guards the answer
    QByteArray state;
    std::thread thread; // last, because it uses all other members
};
