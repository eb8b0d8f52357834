// SPDX-License-Identifier: MIT
#pragma once

#include <QSize>
#include <QString>
#include <QStringList>

/** What the command line of start-agent asks for. A value. */
struct AgentOptions
{
    bool rootless = false; ///< one maximised application instead of a desktop
    QSize size;            ///< the screen's first size
    quint16 port = 0;      ///< where viewers connect
};

/**
 * Reads "GEOMETRY PORT". The geometry is a screen size or "rootless".
 *
 * @param arguments  without the program's name
 * @param options    set only on success
 * @param error      set only on failure: one sentence
 */
[[nodiscard]] bool parseAgentArguments(const QStringList &arguments, AgentOptions *options, QString *error);

/**
 * Reads the display's number from the file at @p path.
 *
 * @param display  set only on success
 * @param error    set only on failure: one sentence that names the file
 */
[[nodiscard]] bool readDisplayNumber(const QString &path, quint16 *display, QString *error);

/**
 * Checks that @p port is the one of @p display, because the server tells viewers the port by the display's number.
 *
 * @param error  set only on failure: one sentence
 */
[[nodiscard]] bool checkPort(quint16 port, quint16 display, QString *error);
