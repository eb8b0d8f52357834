// SPDX-License-Identifier: MIT
#pragma once

#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>

/**
 * The addresses of hosts, looked up side by side. Hosts that are unknown, or whose name service does not answer within
 * @p timeout, have none. Runs the event loop. Used on the main thread.
 *
 * A look-up cannot be cancelled, and Qt's own would delay the end of the program by the time-out of the name service.
 */
[[nodiscard]] QHash<QString, QList<QHostAddress>> lookUpHosts(const QStringList &names,
                                                              std::chrono::milliseconds timeout);
