// SPDX-License-Identifier: MIT
#pragma once

#include "support/localendpoint.h"

#include <QByteArray>
#include <QObject>

#include <functional>

/*
 * How a command line comes from start-app to the agent, over a socket in the session directory: the command line, a
 * NUL, and in return "ok" or a sentence that says what went wrong, up to the end of the stream.
 */
inline constexpr qsizetype kMaxCommandBytes = 64 * 1024;
inline constexpr qsizetype kMaxAnswerBytes = 4 * 1024;
inline constexpr char kCommandEnd = '\0';
inline constexpr char kCommandAccepted[] = "ok";

/**
 * Takes the command lines of applications from start-app. Owned by the agent, lives on the main thread.
 */
class ApplicationDoor final : public QObject
{
    Q_OBJECT

public:
    /** Starts an application; false with a sentence in @p error when that fails. */
    using Start = std::function<bool(const QByteArray &commandLine, QString *error)>;

    /** Connections at one time; a further one is closed unseen. */
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
