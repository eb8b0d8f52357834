// SPDX-License-Identifier: MIT
#pragma once

#include "agent/door/reception.h"

#include <QByteArray>
#include <QObject>

#include <memory>

#include <sys/types.h>

class QSocketNotifier;

/**
 * The program "session-door", which receives visitors in confined processes. Started for the first visitor, and again
 * if it has died. Owned by the agent, lives on the main thread.
 */
class DoorProcess final : public QObject, public Reception
{
    Q_OBJECT

public:
    /** @param program  path of the file to run */
    explicit DoorProcess(QByteArray program, QObject *parent = nullptr);
    ~DoorProcess() override;

    void setCertificate(const QByteArray &pem) override;
    [[nodiscard]] bool receive(const VisitorOrder &order, int client, int control, QString *error) override;
    void end(quint32 id) override;

private:
    [[nodiscard]] bool start(QString *error);
    void stop();
    void Notifier_activated();

    const QByteArray program;
    QByteArray certificate;
    int socket = -1; ///< to the program; -1: it does not run
    pid_t process = -1;
    bool hasWarned = false;
    std::unique_ptr<QSocketNotifier> notifier;
};
