// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QString>

class QDateTime;
class QSize;

/**
 * The agent's log file. It is read by people, and by the session server, which rebuilds a session's state from it when
 * the agent cannot be asked; so the six kinds of event below have fixed forms. All other lines begin with a date and
 * can therefore not be taken for an event. No line is ever empty or broken in two, for the reader stops at an empty
 * line and cuts lines at 512 characters.
 *
 * The lines hold one-time passwords, because their reader needs them: the file is private to the user.
 * Owned by the program's main function; the events are written on the main thread only.
 */
class SessionLog final : public Logging
{
public:
    SessionLog() = default;
    ~SessionLog() override;

    /**
     * Opens the file at @p path to append to it, and makes it private.
     *
     * @param error  set only on failure: one sentence that names the file
     */
    [[nodiscard]] bool open(const QString &path, QString *error);

    /** One line of free text, in the form of Logging::formatLine(), at most 500 characters of it. */
    void write(int level, const QString &text) override;

    void ready(const QDateTime &time);
    void passwordAdded(const QString &password);
    void passwordExpired(const QString &password);
    void clientAuthenticated(const QString &address, const QDateTime &time, const QString &password);
    void clientDisconnected(const QString &address, const QDateTime &time);
    void screenResized(const QSize &size);

private:
    void writeLine(const QString &line);

    int descriptor = -1;
};
