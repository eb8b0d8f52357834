// SPDX-License-Identifier: MIT
#pragma once

#include "base/logging.h"

#include <QString>

class QDateTime;
class QSize;

/**
 * The agent's log file. People read it, and so does the server, which rebuilds a session's state from it when the agent
 * does not answer. So the six kinds of event below have fixed forms. All other lines begin with a date, so they cannot
 * be taken for an event. No line is empty, and free text is one line of at most 500 characters, because the server
 * stops at an empty line and cuts lines at 512 characters.
 *
 * The lines hold one-time passwords, because the server needs them, so the file is private to the user.
 * Owned by start-agent's main function. Events are written on the main thread only.
 */
class SessionLog final : public Logging
{
public:
    SessionLog() = default;
    ~SessionLog() override;
    Q_DISABLE_COPY_MOVE(SessionLog)

    /**
     * Opens the file at @p path to append, and makes it private.
     *
     * @param error  set only on failure: one sentence that names the file
     */
    [[nodiscard]] bool open(const QString &path, QString *error);

    /** Writes one line of free text, in the form of Logging::formatLine() and cut to 500 characters. */
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
