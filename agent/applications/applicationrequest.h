// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>
#include <QString>
#include <QTimer>

/**
 * The client of ApplicationDoor: sends one command line to the agent of a session. Owned by start-app's main function,
 * used once.
 */
class ApplicationRequest final : public QObject
{
    Q_OBJECT

public:
    explicit ApplicationRequest(QObject *parent = nullptr);
    ~ApplicationRequest() override;

    /**
     * Sends @p commandLine to the agent that listens at @p path. finished() follows within 10 s, from the event loop.
     */
    void send(const QString &path, const QByteArray &commandLine);

signals:
    /** @p error is empty when the agent has started the application. Otherwise it is one sentence. */
    void finished(const QString &error);

private:
    void Socket_readyRead();
    void Socket_disconnected();
    void finish(const QString &error);

    QLocalSocket socket;
    QByteArray answer;
    QTimer deadline;
    bool isFinished = false;
};
