// SPDX-License-Identifier: MIT
#pragma once

#include "agent/confined/rfbhandshake.h"

#include <QObject>
#include <QTimer>

#include <memory>
#include <string>

class QSocketNotifier;

/**
 * The handshake with a viewer at the local socket. It is the user's own or root's, which the kernel has told us, so no
 * password is asked. It emits exactly one of its two signals, once, and serves no purpose after that.
 * Owned by the front door, lives on the main thread.
 */
class LocalHandshake final : public QObject
{
    Q_OBJECT

public:
    /** @param client  the viewer's non-blocking socket, ours from now on */
    explicit LocalHandshake(int client, QObject *parent = nullptr);
    ~LocalHandshake() override;

    /** The socket, which is the caller's from now on. May be called once, after agreed(). */
    [[nodiscard]] int takeClient();

signals:
    void agreed();
    void failed();

private:
    void Notifier_activated();
    void finish(bool isAgreed);

    int client;
    RfbHandshake handshake;
    std::string input;
    std::unique_ptr<QSocketNotifier> notifier;
    QTimer deadline;
};
