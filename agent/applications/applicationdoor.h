// SPDX-License-Identifier: MIT
#pragma once

#include "support/localendpoint.h"

#include <QByteArray>
#include <QObject>

#include <functional>

/*
 * How start-app sends a command line to the agent, over a socket in the session directory: the command line, then a
 * NUL. The agent answers "ok" or a sentence that says what went wrong, and closes the connection.
 */
inline constexpr qsizetype kMaxCommandBytes = 64 * 1024;
inline constexpr qsizetype kMaxAnswerBytes = 4 * 1024;
inline constexpr char kCommandEnd = '\0';
inline constexpr char kCommandAccepted[] = "ok";

/** Takes command lines from start-app. Owned by the agent, lives on the main thread. */
class ApplicationDoor final : public QObject
{
    Q_OBJECT

public:
    /** Starts an application. @param error  set only on failure: one sentence */
    using Start = std::function<bool(const QByteArray &commandLine, QString *error)>;

    /** Connections at one time; one more is closed before anything is read. */
    static constexpr int kMaxConnections = 16;

    explicit ApplicationDoor(Start start, QObject *parent = nullptr);

    /** @param error  set only on failure: one sentence that names the path */
    [[nodiscard]] bool listen(const QString &path, QString *error);

private:
    void Endpoint_accepted(int descriptor);

    Start start;
    int connections = 0;
    LocalEndpoint endpoint;
};
